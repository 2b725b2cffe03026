/*
 * live-host: one participant of tools/live-meeting, a host written in plain C against convoke.h.
 * It joins a meeting, publishes the virtual test-pattern camera and test-tone microphone, renders
 * the other participant's video, and counts what arrives from it. Two roles make both sides see the
 * other arrive and leave:
 *   stay    measure, wait for the other to leave and come back, then leave;
 *   rejoin  measure, stay a little longer (the other's window may have started later), leave,
 *           join again, wait for the other to leave.
 *
 *   live-host --server HOST --meeting ID --name NAME --uuid UUID --role stay|rejoin
 *             [--window SECONDS] [--snapshot FILE.png]
 *
 * The last line is "live-host NAME: frames F, first frame T ms, amplitude P, arrivals A,
 * departures D, snapshot S" and the exit status is 0 when every expectation held.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "convoke/convoke.h"
#include "demo_frame.h"
#include "demo_register.h"

#define TEXT 160
#define LATER_WINDOW_MARGIN_S 4
#define SNAPSHOT_INTERVAL_S 0.5

static struct {
  pthread_mutex_t lock;
  char self[TEXT];
  char other[TEXT];  /* the other participant's UUID once seen */
  char stream[TEXT]; /* its video stream */
  int otherPresent;
  int enablePending;
  double joinedAt;     /* when our first join returned */
  double otherSince;   /* when its video was last announced */
  double firstFrameMs; /* its first frame after the later of the two (-1: none yet); kept from
                          the first meeting, a rejoin does not change it */
  double windowStart;  /* counting starts at the first frame */
  double windowSeconds;
  unsigned long frames;     /* frames of the other's stream inside the window */
  unsigned long amplitudes; /* amplitude events above zero from the other inside the window */
  unsigned long arrivals, departures;
  int wantSnapshot;
  double lastCopy; /* when the snapshot's picture was last copied */
  DemoImage last;
} m;

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static void pause_ms(int ms) {
  struct timespec t = {ms / 1000, (long)(ms % 1000) * 1000000L};
  nanosleep(&t, NULL);
}

static int inWindow(double t) { return m.windowStart > 0 && t - m.windowStart <= m.windowSeconds; }

static void onAdded(const char* uuid) {
  pthread_mutex_lock(&m.lock);
  if (strcmp(uuid, m.self) != 0) {
    snprintf(m.other, TEXT, "%s", uuid);
    m.otherPresent = 1;
    ++m.arrivals;
  }
  pthread_mutex_unlock(&m.lock);
}

static void onRemoved(const char* uuid) {
  pthread_mutex_lock(&m.lock);
  if (strcmp(uuid, m.other) == 0) {
    m.otherPresent = 0;
    m.stream[0] = '\0';
    ++m.departures;
  }
  pthread_mutex_unlock(&m.lock);
}

static void onVideoAdded(const char* uuid, const char* id) {
  pthread_mutex_lock(&m.lock);
  if (strcmp(uuid, m.self) != 0) {
    snprintf(m.stream, TEXT, "%s", id);
    m.enablePending = 1;
    m.otherSince = now();
  }
  pthread_mutex_unlock(&m.lock);
}

static void onFrame(const char* id, void* buffer) {
  const double t = now();
  pthread_mutex_lock(&m.lock);
  if (strcmp(id, m.stream) == 0) {
    if (m.windowStart == 0) {
      m.windowStart = t;
      m.firstFrameMs = (t - (m.otherSince > m.joinedAt ? m.otherSince : m.joinedAt)) * 1000;
    }
    if (inWindow(t)) {
      ++m.frames;
      /* A picture now and then is enough for the snapshot; copying each would cost a frame's
       * worth of work every time. */
      if (m.wantSnapshot && t - m.lastCopy >= SNAPSHOT_INTERVAL_S) {
        demo_image_copy_frame(&m.last, buffer);
        m.lastCopy = t;
      }
    }
  }
  pthread_mutex_unlock(&m.lock);
}

static void onAmplitude(const char* uuid, unsigned char amplitude, bool muted) {
  (void)muted;
  pthread_mutex_lock(&m.lock);
  if (strcmp(uuid, m.other) == 0 && amplitude > 0 && inWindow(now())) ++m.amplitudes;
  pthread_mutex_unlock(&m.lock);
}

static int joined = -1;
static void onJoined(bool ok) { joined = ok ? 1 : 0; }

static void registerCallbacks(void) {
  ConvokeParticipantCallback added = onAdded, removed = onRemoved;
  ConvokeParticipantStreamCallback videoAdded = onVideoAdded;
  ConvokeVideoBufferCallback frame = onFrame;
  ConvokeAmplitudeCallback amplitude = onAmplitude;
  DEMO_REGISTER(DelegateCallbackSlotParticipantAdded, added);
  DEMO_REGISTER(DelegateCallbackSlotParticipantRemoved, removed);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoAdded, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotVideoFrameReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAmplitudeChanged, amplitude);
}

static int join(const char* server, const char* meeting, const char* name) {
  joined = -1;
  joinMeeting(server, meeting, "live-meeting-key", m.self, name, onJoined);
  if (joined != 1) {
    fprintf(stderr, "live-host %s: could not join: %s\n", name, getLastError());
    return -1;
  }
  if (!enableAudioInput("test-tone") || !enableAudioOutput("null-speaker") ||
      !enableVideoCapture("test-pattern", "VP8 640x480 (30FPS)")) {
    fprintf(stderr, "live-host %s: devices refused: %s\n", name, getLastError());
    return -1;
  }
  return 0;
}

/* Waits up to `limit` seconds for `done`, rendering the other's stream once it is announced. */
static int waitFor(int (*done)(void), double limit) {
  const double end = now() + limit;
  while (now() < end) {
    char stream[TEXT] = "";
    pthread_mutex_lock(&m.lock);
    if (m.enablePending) {
      m.enablePending = 0;
      snprintf(stream, TEXT, "%s", m.stream);
    }
    pthread_mutex_unlock(&m.lock);
    if (stream[0] != '\0' && !enableVideoStream(stream, "RGB888")) {
      fprintf(stderr, "live-host: rendering refused: %s\n", getLastError());
    }
    pthread_mutex_lock(&m.lock);
    const int ok = done();
    pthread_mutex_unlock(&m.lock);
    if (ok) return 0;
    pause_ms(50); /* each wake-up costs, and nothing here needs to be quicker */
  }
  return -1;
}

static int never(void) { return 0; }
static int otherHere(void) { return m.otherPresent; }
static int otherGone(void) { return !m.otherPresent; }
static int windowOver(void) { return m.windowStart > 0 && now() - m.windowStart > m.windowSeconds; }

/* The colour bars of the virtual camera (GStreamer's videotestsrc): seven full-height bars of full
 * intensity, white, yellow, cyan, green, magenta, red, blue. The middle of each, a third of the way
 * down, is compared after the round trip through VP8 (within 48 of 0 or 255). */
static int looksLikeTestPattern(const DemoImage* image) {
  static const int bars[7][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                 {255, 0, 255},   {255, 0, 0},   {0, 0, 255}};
  int i, c;
  if (image->pixels == NULL) return 0;
  for (i = 0; i < 7; ++i) {
    const int x = (2 * i + 1) * image->width / 14, y = image->height / 3;
    const unsigned char* p = image->pixels + ((size_t)y * image->width + x) * 3;
    for (c = 0; c < 3; ++c) {
      if (abs(p[c] - bars[i][c]) > 48) return 0;
    }
  }
  return 1;
}

/* The command line; --uuid and --window go straight into m. */
typedef struct {
  const char *server, *meeting, *name, *role, *snapshot;
} Options;

static int readOptions(int argc, char** argv, Options* o) {
  int i;
  o->server = o->meeting = o->name = o->snapshot = NULL;
  o->role = "stay";
  for (i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--server") == 0)
      o->server = argv[i + 1];
    else if (strcmp(argv[i], "--meeting") == 0)
      o->meeting = argv[i + 1];
    else if (strcmp(argv[i], "--name") == 0)
      o->name = argv[i + 1];
    else if (strcmp(argv[i], "--uuid") == 0)
      snprintf(m.self, TEXT, "%s", argv[i + 1]);
    else if (strcmp(argv[i], "--role") == 0)
      o->role = argv[i + 1];
    else if (strcmp(argv[i], "--window") == 0)
      m.windowSeconds = atof(argv[i + 1]);
    else if (strcmp(argv[i], "--snapshot") == 0)
      o->snapshot = argv[i + 1];
  }
  if (!o->server || !o->meeting || !o->name || m.self[0] == '\0' || i != argc) {
    fprintf(stderr,
            "usage: live-host --server HOST --meeting ID --name NAME --uuid UUID "
            "--role stay|rejoin [--window SECONDS] [--snapshot FILE.png]\n");
    return -1;
  }
  return 0;
}

/* Writes the last frame of the other participant to `path`; says what it showed. */
static const char* takeSnapshot(const char* path) {
  const char* result;
  const DemoImage* images[1];
  pthread_mutex_lock(&m.lock);
  images[0] = &m.last;
  result = looksLikeTestPattern(&m.last) ? "test pattern" : "wrong picture";
  if (m.last.pixels == NULL || demo_write_mosaic(path, images, 1) != 0) result = "missing";
  pthread_mutex_unlock(&m.lock);
  return result;
}

/* After the measured window: "rejoin" leaves, comes back and sees the other leave; "stay" sees the
 * other leave and come back. Non-zero when that did not happen. */
static int leaveAndReturn(const Options* o) {
  if (strcmp(o->role, "rejoin") == 0) {
    /* The other's window began at its own first frame, which may have come later than ours: stay
     * until that window is over too, so that leaving does not cut it short. */
    waitFor(never, LATER_WINDOW_MARGIN_S);
    exitMeeting();
    pause_ms(1500);
    pthread_mutex_lock(&m.lock);
    m.otherPresent = 0;
    pthread_mutex_unlock(&m.lock);
    if (join(o->server, o->meeting, o->name) != 0 || waitFor(otherHere, 20) != 0 ||
        waitFor(otherGone, 30) != 0) {
      fprintf(stderr, "live-host %s: did not see the other leave after rejoining\n", o->name);
      return 1;
    }
    return 0;
  }
  if (waitFor(otherGone, 30) != 0 || waitFor(otherHere, 30) != 0) {
    fprintf(stderr, "live-host %s: did not see the other leave and come back\n", o->name);
    return 1;
  }
  pause_ms(2000); /* the other sees us before we go */
  return 0;
}

/* The figures line; non-zero when a figure shows that something never happened. */
static int report(const char* name, const char* snapshotResult, int snapshotWanted) {
  int failed = 0;
  pthread_mutex_lock(&m.lock);
  const double first = m.firstFrameMs;
  printf(
      "live-host %s: frames %lu, first frame %.0f ms, amplitude %lu, arrivals %lu, departures %lu, "
      "snapshot %s\n",
      name, m.frames, first, m.amplitudes, m.arrivals, m.departures, snapshotResult);
  if (m.frames == 0 || m.amplitudes == 0 || m.arrivals == 0 || m.departures == 0) failed = 1;
  if (snapshotWanted && strcmp(snapshotResult, "test pattern") != 0) failed = 1;
  pthread_mutex_unlock(&m.lock);
  fflush(stdout);
  return failed;
}

int main(int argc, char** argv) {
  Options o;
  const char* snapshotResult = "none";
  int failed = 0;
  m.windowSeconds = 10;
  m.firstFrameMs = -1;
  if (readOptions(argc, argv, &o) != 0) return 2;
  pthread_mutex_init(&m.lock, NULL);
  m.wantSnapshot = o.snapshot != NULL;
  ConvokeInitialize();
  registerCallbacks();

  if (join(o.server, o.meeting, o.name) != 0) return 1;
  pthread_mutex_lock(&m.lock);
  m.joinedAt = now();
  pthread_mutex_unlock(&m.lock);
  if (waitFor(otherHere, 30) != 0) {
    fprintf(stderr, "live-host %s: the other participant never arrived\n", o.name);
    failed = 1;
  } else if (waitFor(windowOver, 30 + m.windowSeconds) != 0) {
    fprintf(stderr, "live-host %s: no frame from the other participant\n", o.name);
    failed = 1;
  }
  if (o.snapshot != NULL) snapshotResult = takeSnapshot(o.snapshot);
  if (!failed) failed = leaveAndReturn(&o);
  exitMeeting();

  if (report(o.name, snapshotResult, o.snapshot != NULL)) failed = 1;
  ConvokeDeallocate();
  return failed;
}
