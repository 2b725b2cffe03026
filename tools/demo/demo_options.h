/* Command-line options shared by the hosts in tools/ (convoke-demo, convoke-gallery).
 *
 * Each host describes its options in a table of DemoOption entries; demo_parse_options reads argv
 * against it, checks every value (whole numbers and seconds must parse completely and lie in their
 * range; an output file's folder must exist and be writable) and prints what is wrong to stderr.
 * The meeting options every host takes come from DEMO_MEETING_OPTIONS. */
#ifndef CONVOKE_TOOLS_DEMO_OPTIONS_H
#define CONVOKE_TOOLS_DEMO_OPTIONS_H

/* Exit statuses of the hosts. */
enum { DEMO_EXIT_OK = 0, DEMO_EXIT_FAILED = 1, DEMO_EXIT_USAGE = 2 };

typedef enum {
  DEMO_OPTION_FLAG,    /* no value; sets an int to 1 */
  DEMO_OPTION_TEXT,    /* a non-empty text (const char*) */
  DEMO_OPTION_INT,     /* a whole number within [min, max] (int) */
  DEMO_OPTION_SECONDS, /* a decimal number of seconds within [min, max] (double) */
  DEMO_OPTION_OUTPUT,  /* a file path whose folder exists and is writable (const char*) */
  DEMO_OPTION_INPUT    /* a readable file path (const char*) */
} DemoOptionKind;

typedef struct {
  const char* name; /* "--duration" */
  DemoOptionKind kind;
  void* target;      /* int*, const char** or double*, by kind */
  double min, max;   /* for DEMO_OPTION_INT and DEMO_OPTION_SECONDS */
  const char* value; /* the value's name in the usage text ("SECONDS"); NULL for a flag */
} DemoOption;

/* The meeting every host joins. participants is -1 unless given. */
typedef struct {
  const char* server;
  const char* meeting;
  const char* name;
  int participants;
  double duration;
} DemoMeetingOptions;

/* The simulation's limits: 0 to 1000 remote participants; a day at most. */
#define DEMO_MEETING_OPTIONS(m)                                                  \
  {"--participants", DEMO_OPTION_INT, &(m).participants, 0, 1000, "N"},          \
      {"--duration", DEMO_OPTION_SECONDS, &(m).duration, 0.1, 86400, "SECONDS"}, \
      {"--name", DEMO_OPTION_TEXT, &(m).name, 0, 0, "NAME"},                     \
      {"--meeting", DEMO_OPTION_TEXT, &(m).meeting, 0, 0, "ID"}, {               \
    "--server", DEMO_OPTION_TEXT, &(m).server, 0, 0, "HOST"                      \
  }

/* Reads argv[1..argc-1] against options[0..count-1]. Returns DEMO_EXIT_OK, or DEMO_EXIT_USAGE
 * after printing the problem and the usage (an unknown option, a missing or malformed value, a
 * value out of range), or DEMO_EXIT_FAILED after printing why an output file cannot be written. A
 * later occurrence of an option replaces an earlier one. */
int demo_parse_options(int argc, char** argv, const DemoOption* options, int count);

/* 0 when a file can be created or replaced at path; otherwise prints why (naming option) and
 * returns -1. */
int demo_check_output(const char* option, const char* path);

/* Prints "usage: PROGRAM [--option VALUE] ..." for the table to stderr. */
void demo_print_usage(const char* program, const DemoOption* options, int count);

/* The meeting identifier to join: the meeting, with "?participants=N" for the simulated engines
 * when --participants was given (or "&participants=N" when the identifier has options already).
 * Returns 0, or -1 when it does not fit in size bytes. */
int demo_meeting_id(const DemoMeetingOptions* meeting, char* out, unsigned long size);

#endif /* CONVOKE_TOOLS_DEMO_OPTIONS_H */
