/*
 * convoke-gallery: a windowed host in plain C on convoke.h, drawn with SDL2. It joins a meeting
 * (by default a simulated one on this machine), switches the microphone, speakers and camera on,
 * and shows every participant as a tile at its picture's aspect ratio with name, site, a muted mark
 * and a border that lights up as they speak; the self view; a shared screen large beside them; the
 * local meters and the network's condition.
 *
 *   convoke-gallery [--participants N] [--duration SECONDS] [--name NAME] [--meeting ID]
 *                   [--server HOST] [--screenshot FILE.png] [--at SECONDS] [--script FILE]
 *
 * Keys: M microphone, V camera, S speakers, D screen share, Q leave; each button's arrow opens its
 * device list; the mouse wheel over a tile sets that participant's volume. --duration leaves after
 * that time (the default is to stay until Q or the window is closed). --screenshot writes the
 * window's contents --at seconds after the join (5 by default) and goes on, printing where each
 * tile is. --script replays key presses at given times, one "SECONDS KEY" a line (KEY one of m, v,
 * s, d, q, or "screenshot FILE.png"); # starts a comment.
 *
 * How the work is shared between threads: gallery/gallery.h. Exit status: 0, 1 when the meeting or
 * a screenshot failed, 2 for bad options or a bad script.
 */
#define _POSIX_C_SOURCE 200809L

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "convoke/convoke.h"
#include "demo_frame.h"
#include "demo_options.h"
#include "gallery.h"

#ifndef GALLERY_FONT_PATH
#define GALLERY_FONT_PATH "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"
#endif

enum { kMaxSteps = 256 };

/* One timed step: a key press, or a screenshot when key is 0. */
typedef struct {
  double at;
  char key;
  char path[PATH_MAX];
} Step;

static Step steps[kMaxSteps];
static int stepCount;
static int joinResult = -1;

static void onJoined(bool ok) { joinResult = ok ? 1 : 0; }

static int addStep(double at, char key, const char* path) {
  int i;
  if (stepCount == kMaxSteps) return -1;
  for (i = stepCount; i > 0 && steps[i - 1].at > at; --i) steps[i] = steps[i - 1]; /* by time */
  steps[i].at = at;
  steps[i].key = key;
  snprintf(steps[i].path, sizeof steps[i].path, "%s", path != NULL ? path : "");
  ++stepCount;
  return 0;
}

/* Reads the --script file. Returns DEMO_EXIT_OK, or another status after printing the problem. */
static int readScript(const char* path) {
  FILE* file = fopen(path, "r");
  char line[PATH_MAX + 64];
  int number = 0;
  if (file == NULL) {
    perror(path);
    return DEMO_EXIT_USAGE;
  }
  while (fgets(line, sizeof line, file) != NULL) {
    char word[PATH_MAX], extra[PATH_MAX] = "";
    double at;
    int fields;
    char* hash = strchr(line, '#');
    ++number;
    if (hash != NULL) *hash = '\0';
    fields = sscanf(line, "%lf %4095s %4095s", &at, word, extra);
    if (fields <= 0) continue; /* blank */
    if (fields >= 2 && at >= 0 && strcmp(word, "screenshot") == 0 && extra[0] != '\0') {
      if (demo_check_output("screenshot", extra) != 0) {
        fclose(file);
        return DEMO_EXIT_FAILED;
      }
      if (addStep(at, 0, extra) == 0) continue;
    } else if (fields == 2 && at >= 0 && strlen(word) == 1 && strchr("mvsdq", tolower(word[0]))) {
      if (addStep(at, (char)tolower(word[0]), NULL) == 0) continue;
    }
    fprintf(stderr,
            "%s:%d: expected \"SECONDS KEY\" (KEY one of m v s d q) or "
            "\"SECONDS screenshot FILE.png\", at most %d steps\n",
            path, number, kMaxSteps);
    fclose(file);
    return DEMO_EXIT_USAGE;
  }
  fclose(file);
  return DEMO_EXIT_OK;
}

static void pressKey(Gallery* g, char key) {
  static const struct {
    char key;
    int control;
  } toggles[] = {
      {'m', GALLERY_MIC}, {'v', GALLERY_CAMERA}, {'s', GALLERY_SPEAKERS}, {'d', GALLERY_SHARE}};
  size_t i;
  key = (char)tolower((unsigned char)key);
  if (key == 'q') g->leaving = 1;
  for (i = 0; i < sizeof toggles / sizeof toggles[0]; ++i) {
    if (toggles[i].key == key) gallery_toggle(g, toggles[i].control);
  }
}

static void handle(Gallery* g, const SDL_Event* e, Uint32 messageEvent) {
  if (e->type == messageEvent) {
    gallery_apply_message(g, e->user.data1);
  } else if (e->type == SDL_QUIT) {
    g->leaving = 1;
  } else if (e->type == SDL_KEYDOWN && e->key.repeat == 0) {
    if (e->key.keysym.sym == SDLK_ESCAPE) g->picker = -1, g->dirty = 1;
    if (e->key.keysym.sym < 128) pressKey(g, (char)e->key.keysym.sym);
  } else if (e->type == SDL_MOUSEBUTTONDOWN && e->button.button == SDL_BUTTON_LEFT) {
    gallery_click(g, e->button.x, e->button.y);
  } else if (e->type == SDL_MOUSEWHEEL) {
    int x, y;
    SDL_GetMouseState(&x, &y);
    gallery_wheel(g, x, y, e->wheel.y);
  } else if (e->type == SDL_WINDOWEVENT) {
    g->dirty = 1;
  }
}

/* Writes what the renderer holds now (before it is presented) as a PNG. */
static int screenshot(Gallery* g, const char* path) {
  const size_t size = (size_t)g->width * (size_t)g->height * 3;
  unsigned char* pixels = malloc(size);
  int status = -1;
  if (pixels != NULL &&
      SDL_RenderReadPixels(g->renderer, NULL, SDL_PIXELFORMAT_RGB24, pixels, g->width * 3) == 0) {
    status = demo_write_png(path, g->width, g->height, pixels);
  }
  free(pixels);
  if (status != 0) {
    fprintf(stderr, "convoke-gallery: could not write the screenshot %s\n", path);
    return DEMO_EXIT_FAILED;
  }
  gallery_report(g, path);
  return DEMO_EXIT_OK;
}

/* The user-interface loop: events as they come, a redraw at most once per display refresh and only
 * when something changed, the script's steps at their times. Returns the exit status. */
static int run(Gallery* g, double duration, Uint32 messageEvent, int refresh) {
  const double start = gallery_now(), period = 1.0 / refresh;
  double nextDraw = start;
  int next = 0, status = DEMO_EXIT_OK;
  const char* shot = NULL;
  while (!g->leaving) {
    SDL_Event e;
    double now = gallery_now();
    const int wait = nextDraw > now ? (int)((nextDraw - now) * 1000.0) + 1 : 0;
    if (SDL_WaitEventTimeout(&e, wait)) {
      handle(g, &e, messageEvent);
      while (SDL_PollEvent(&e)) handle(g, &e, messageEvent);
    }
    now = gallery_now();
    for (; next < stepCount && shot == NULL && now - start >= steps[next].at; ++next) {
      if (steps[next].key != 0) pressKey(g, steps[next].key);
      if (steps[next].key == 0) shot = steps[next].path;
    }
    if (duration > 0 && now - start >= duration) g->leaving = 1;
    if (now < nextDraw) continue;
    nextDraw = nextDraw + period > now ? nextDraw + period : now + period;
    if (g->toast[0] != '\0' && now >= g->toastUntil) g->dirty = 1;
    if (!g->dirty && shot == NULL) continue;
    g->dirty = 0;
    gallery_draw(g);
    if (shot != NULL) {
      status = screenshot(g, shot);
      shot = NULL;
      if (status != DEMO_EXIT_OK) g->leaving = 1;
    }
    SDL_RenderPresent(g->renderer);
  }
  return status;
}

/* Whether an OpenGL renderer draws on the CPU (a software rasteriser, as under Xvfb): SDL's own
 * software renderer then costs about a quarter less, since it scales and blends without the GL
 * pipeline's extra copies. Its context is current right after SDL_CreateRenderer. */
static int drawsOnTheCpu(SDL_Renderer* renderer) {
  typedef const unsigned char* (*GetString)(unsigned int);
  const unsigned int kGlRenderer = 0x1F01; /* GL_RENDERER */
  SDL_RendererInfo info;
  GetString getString;
  const char* name;
  if (SDL_GetRendererInfo(renderer, &info) != 0 || strncmp(info.name, "opengl", 6) != 0) return 0;
  getString = (GetString)SDL_GL_GetProcAddress("glGetString");
  name = getString != NULL ? (const char*)getString(kGlRenderer) : NULL;
  return name != NULL && (strstr(name, "llvmpipe") != NULL || strstr(name, "softpipe") != NULL ||
                          strstr(name, "Software Rasterizer") != NULL);
}

/* The window, its renderer and fonts. Returns 0, or -1 after printing why. */
static int openWindow(Gallery* g, const char* title) {
  const char* font = getenv("CONVOKE_GALLERY_FONT");
  SDL_RendererInfo info;
  if (font == NULL) font = GALLERY_FONT_PATH;
  g->window = SDL_CreateWindow(title, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, 1280, 720,
                               SDL_WINDOW_RESIZABLE);
  if (g->window == NULL) {
    fprintf(stderr, "convoke-gallery: no window: %s\n", SDL_GetError());
    return -1;
  }
  g->renderer =
      SDL_CreateRenderer(g->window, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC);
  if (g->renderer != NULL && getenv("SDL_RENDER_DRIVER") == NULL && drawsOnTheCpu(g->renderer)) {
    SDL_DestroyRenderer(g->renderer);
    g->renderer = SDL_CreateRenderer(g->window, -1, SDL_RENDERER_SOFTWARE);
  }
  if (g->renderer == NULL) g->renderer = SDL_CreateRenderer(g->window, -1, 0);
  if (g->renderer == NULL) {
    fprintf(stderr, "convoke-gallery: no renderer: %s\n", SDL_GetError());
    return -1;
  }
  if (TTF_Init() != 0 || (g->font = TTF_OpenFont(font, 13)) == NULL ||
      (g->bigFont = TTF_OpenFont(font, 40)) == NULL) {
    fprintf(stderr, "convoke-gallery: cannot load the font %s: %s\n", font, TTF_GetError());
    return -1;
  }
  SDL_GetRendererInfo(g->renderer, &info);
  printf("window 1280x720, renderer %s\n", info.name);
  return 0;
}

static int displayRate(Gallery* g) {
  SDL_DisplayMode mode;
  if (SDL_GetCurrentDisplayMode(SDL_GetWindowDisplayIndex(g->window), &mode) == 0 &&
      mode.refresh_rate > 0) {
    return mode.refresh_rate;
  }
  return 60;
}

static Gallery gallery;

int main(int argc, char** argv) {
  DemoMeetingOptions meeting = {"localhost", "demo", "Gallery User", -1, 0};
  const char *shot = NULL, *script = NULL;
  double at = -1;
  int status;
  char meetingId[512], title[600];
  Uint32 messageEvent;
  const DemoOption options[] = {
      DEMO_MEETING_OPTIONS(meeting),
      {"--screenshot", DEMO_OPTION_OUTPUT, &shot, 0, 0, "FILE.png"},
      {"--at", DEMO_OPTION_SECONDS, &at, 0, 86400, "SECONDS"},
      {"--script", DEMO_OPTION_INPUT, &script, 0, 0, "FILE"},
  };
  const int count = (int)(sizeof options / sizeof *options);

  status = demo_parse_options(argc, argv, options, count);
  if (status != DEMO_EXIT_OK) return status;
  if (at >= 0 && shot == NULL) {
    fprintf(stderr, "convoke-gallery: --at needs --screenshot\n");
    return DEMO_EXIT_USAGE;
  }
  if (shot != NULL && meeting.duration > 0 && (at >= 0 ? at : 5.0) >= meeting.duration) {
    fprintf(stderr,
            "convoke-gallery: the screenshot (--at) must come before the end (--duration)\n");
    return DEMO_EXIT_USAGE;
  }
  if (demo_meeting_id(&meeting, meetingId, sizeof meetingId) != 0) {
    fprintf(stderr, "convoke-gallery: --meeting is too long\n");
    return DEMO_EXIT_USAGE;
  }
  if (shot != NULL) addStep(at >= 0 ? at : 5.0, 0, shot);
  if (script != NULL && (status = readScript(script)) != DEMO_EXIT_OK) return status;

  if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_EVENTS) != 0) {
    fprintf(stderr, "convoke-gallery: SDL: %s\n", SDL_GetError());
    return DEMO_EXIT_FAILED;
  }
  snprintf(title, sizeof title, "Convoke gallery - %s", meeting.meeting);
  messageEvent = SDL_RegisterEvents(1);
  gallery.picker = -1;
  snprintf(gallery.selfName, sizeof gallery.selfName, "%s", meeting.name);
  if (messageEvent == (Uint32)-1 || openWindow(&gallery, title) != 0) return DEMO_EXIT_FAILED;

  ConvokeInitialize();
  gallery_register_callbacks(messageEvent);
  printf("joining %s on %s as %s\n", meetingId, meeting.server, meeting.name);
  fflush(stdout);
  joinMeeting(meeting.server, meetingId, "gallery-meeting-key", "", meeting.name, onJoined);
  if (joinResult != 1) {
    fprintf(stderr, "convoke-gallery: could not join the meeting\n");
    return DEMO_EXIT_FAILED;
  }
  gallery_start_devices(&gallery);
  status = run(&gallery, meeting.duration, messageEvent, displayRate(&gallery));
  exitMeeting();
  { /* messages posted before the leave are freed unread */
    SDL_Event e;
    while (SDL_PollEvent(&e)) {
      if (e.type == messageEvent) free(e.user.data1);
    }
  }
  printf("left: %lu arrivals, %lu departures\n", gallery.arrivals, gallery.departures);
  gallery_forget_texts();
  SDL_Quit();
  ConvokeDeallocate();
  return status;
}
