/* The hosts' option table reader (see demo_options.h). */
#define _POSIX_C_SOURCE 200809L

#include "demo_options.h"

#include <errno.h>
#include <limits.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The program's name for messages: argv[0] without its folder. */
static const char* program = "convoke";

static const DemoOption* find(const DemoOption* options, int count, const char* name) {
  int i;
  for (i = 0; i < count; ++i) {
    if (strcmp(options[i].name, name) == 0) return &options[i];
  }
  return NULL;
}

/* A whole decimal number, with nothing after it. */
static int parseLong(const char* text, long* out) {
  char* end = NULL;
  errno = 0;
  *out = strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0';
}

static int parseDouble(const char* text, double* out) {
  char* end = NULL;
  errno = 0;
  *out = strtod(text, &end);
  return errno == 0 && end != text && *end == '\0' && isfinite(*out);
}

int demo_check_output(const char* option, const char* path) {
  char folder[PATH_MAX];
  const char* slash = strrchr(path, '/');
  struct stat info;
  if (stat(path, &info) == 0 && S_ISDIR(info.st_mode)) {
    fprintf(stderr, "%s: %s %s: cannot write the file: it is a directory\n", program, option, path);
    return -1;
  }
  if (slash == NULL) {
    snprintf(folder, sizeof folder, ".");
  } else if (slash == path) {
    snprintf(folder, sizeof folder, "/");
  } else {
    snprintf(folder, sizeof folder, "%.*s", (int)(slash - path), path);
  }
  if (stat(folder, &info) != 0 || !S_ISDIR(info.st_mode)) {
    fprintf(stderr, "%s: %s %s: cannot write the file: the folder %s does not exist\n", program,
            option, path, folder);
    return -1;
  }
  if (access(folder, W_OK) != 0 || (access(path, F_OK) == 0 && access(path, W_OK) != 0)) {
    fprintf(stderr, "%s: %s %s: cannot write the file: %s\n", program, option, path,
            strerror(EACCES));
    return -1;
  }
  return 0;
}

/* Stores value into option's target. Returns DEMO_EXIT_OK or the status of the problem (printed).
 */
static int store(const DemoOption* option, const char* value) {
  long whole;
  double seconds;
  switch (option->kind) {
    case DEMO_OPTION_FLAG:
      *(int*)option->target = 1;
      return DEMO_EXIT_OK;
    case DEMO_OPTION_TEXT:
      if (value[0] == '\0') break;
      *(const char**)option->target = value;
      return DEMO_EXIT_OK;
    case DEMO_OPTION_INT:
      if (!parseLong(value, &whole)) break;
      if (whole < option->min || whole > option->max) {
        fprintf(stderr, "%s: %s %s: out of range (%.0f to %.0f)\n", program, option->name, value,
                option->min, option->max);
        return DEMO_EXIT_USAGE;
      }
      *(int*)option->target = (int)whole;
      return DEMO_EXIT_OK;
    case DEMO_OPTION_SECONDS:
      if (!parseDouble(value, &seconds)) break;
      if (seconds < option->min || seconds > option->max) {
        fprintf(stderr, "%s: %s %s: out of range (%g to %g seconds)\n", program, option->name,
                value, option->min, option->max);
        return DEMO_EXIT_USAGE;
      }
      *(double*)option->target = seconds;
      return DEMO_EXIT_OK;
    case DEMO_OPTION_OUTPUT:
      if (value[0] == '\0') break;
      if (demo_check_output(option->name, value) != 0) return DEMO_EXIT_FAILED;
      *(const char**)option->target = value;
      return DEMO_EXIT_OK;
    case DEMO_OPTION_INPUT:
      if (value[0] == '\0') break;
      if (access(value, R_OK) != 0) {
        fprintf(stderr, "%s: %s %s: cannot read the file: %s\n", program, option->name, value,
                strerror(errno));
        return DEMO_EXIT_USAGE;
      }
      *(const char**)option->target = value;
      return DEMO_EXIT_OK;
  }
  fprintf(stderr, "%s: %s '%s': not %s\n", program, option->name, value,
          option->kind == DEMO_OPTION_INT       ? "a whole number"
          : option->kind == DEMO_OPTION_SECONDS ? "a number of seconds"
                                                : "allowed empty");
  return DEMO_EXIT_USAGE;
}

void demo_print_usage(const char* program, const DemoOption* options, int count) {
  int i, column;
  column = fprintf(stderr, "usage: %s", program);
  for (i = 0; i < count; ++i) {
    char item[96];
    int length = options[i].value != NULL
                     ? snprintf(item, sizeof item, " [%s %s]", options[i].name, options[i].value)
                     : snprintf(item, sizeof item, " [%s]", options[i].name);
    if (column + length > 100) column = fprintf(stderr, "\n        ");
    column += fprintf(stderr, "%s", item);
  }
  fprintf(stderr, "\n");
}

int demo_parse_options(int argc, char** argv, const DemoOption* options, int count) {
  int i, status;
  const char* slash = argc > 0 ? strrchr(argv[0], '/') : NULL;
  if (argc > 0) program = slash != NULL ? slash + 1 : argv[0];
  for (i = 1; i < argc; ++i) {
    const DemoOption* option = find(options, count, argv[i]);
    if (option == NULL) {
      fprintf(stderr, "%s: unknown option '%s'\n", program, argv[i]);
      demo_print_usage(argv[0], options, count);
      return DEMO_EXIT_USAGE;
    }
    if (option->kind != DEMO_OPTION_FLAG && i + 1 >= argc) {
      fprintf(stderr, "%s: %s needs a value (%s)\n", program, option->name, option->value);
      demo_print_usage(argv[0], options, count);
      return DEMO_EXIT_USAGE;
    }
    status = store(option, option->kind == DEMO_OPTION_FLAG ? NULL : argv[++i]);
    if (status != DEMO_EXIT_OK) return status;
  }
  return DEMO_EXIT_OK;
}

int demo_meeting_id(const DemoMeetingOptions* meeting, char* out, unsigned long size) {
  int length;
  if (meeting->participants >= 0) {
    length = snprintf(out, size, "%s%cparticipants=%d", meeting->meeting,
                      strchr(meeting->meeting, '?') != NULL ? '&' : '?', meeting->participants);
  } else {
    length = snprintf(out, size, "%s", meeting->meeting);
  }
  return length >= 0 && (unsigned long)length < size ? 0 : -1;
}
