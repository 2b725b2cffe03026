/*
 * live-host: one participant of tools/live-meeting and tools/live-faults, a host written in plain C
 * against convoke.h. It joins a meeting, publishes a virtual camera (the moving test camera by
 * default) and the test-tone microphone, renders every other participant's video, and counts what
 * arrives from each: frames, the moving camera's code read back from each picture (the sender's
 * identity, frame counter and capture time: tools/demo/frame_code.h), amplitude events. Roles:
 *   stay    measure, wait for the other to leave and come back, then leave;
 *   rejoin  measure, stay a little longer (the other's window may have started later), leave,
 *           join again, wait for the other to leave;
 *   watch   measure, then stay in the meeting until --duration seconds after joining, whatever
 *           happens (participants leaving and coming back, the server failing), then leave;
 *   churn   join and leave again every --every ms (300) for --duration seconds, staying half of
 *           each period; the line "live-host NAME: J joins and leaves in S s (R a minute), F
 *           refused" is all it prints (tools/live-churn).
 *
 *   live-host --server HOST --meeting ID --name NAME --uuid UUID --role stay|rejoin|watch|churn
 *             [--expect N] [--window SECONDS] [--duration SECONDS] [--every MS] [--camera ID]
 *             [--snapshot FILE.png] [--samples FILE]
 *
 * --samples writes one line per event, with the wall clock in milliseconds:
 *   F ms uuid latency_ms counter      a frame whose code was read (latency: capture to here)
 *   A ms uuid amplitude               an amplitude event above zero
 *   J ms uuid / L ms uuid             the participant was added / removed
 *   C ms bars downstream_loss upstream_loss received sent   conditions (once a second)
 * Per other participant a line "live-host NAME: from UUID frames F, first frame T ms, amplitude P,
 * codes C, wrong identity W, missing M, latency median X ms p95 Y ms"; the last line is
 * "live-host NAME: frames F, first frame T ms, amplitude P, arrivals A, departures D, snapshot S,
 * bytes/s in R out T" (the conditions' figures over the window; the fewest frames and amplitudes
 * and the latest first frame over the others), and the exit status is 0 when every expectation
 * held.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "convoke/convoke.h"
#include "demo_clock.h"
#include "demo_frame.h"
#include "demo_register.h"
#include "frame_code.h"

#define TEXT 160
#define MAX_OTHERS 8
#define MAX_LATENCIES 20000
#define LATER_WINDOW_MARGIN_S 4
#define SNAPSHOT_INTERVAL_S 0.5

typedef struct {
  char uuid[TEXT];
  char stream[TEXT]; /* its video stream, "" when none */
  unsigned identity;
  int present;
  int enablePending;
  double since;        /* when its video was last announced */
  double firstFrameMs; /* its first frame after the later of the two joins (-1: none yet) */
  double windowStart;  /* counting starts at its first frame */
  unsigned long frames, amplitudes, codes, wrong;
  unsigned lowest, highest; /* frame counters read inside the window */
  int latencies[MAX_LATENCIES];
  int latencyCount;
} Other;

static struct {
  pthread_mutex_t lock;
  char self[TEXT];
  Other others[MAX_OTHERS];
  int count; /* others seen so far */
  double joinedAt;
  double windowSeconds;
  unsigned long arrivals, departures;
  double receivedSum, sentSum; /* conditions' bytes a second, summed while a window is open */
  unsigned long conditions;
  int wantSnapshot;
  double lastCopy;
  DemoImage last;
  FILE* samples;
} m;

static int inWindow(const Other* o, double t) {
  return o->windowStart > 0 && t - o->windowStart <= m.windowSeconds;
}

/* The other participant with that UUID, added when new (NULL for ourselves or when full). */
static Other* otherByUuid(const char* uuid, int add) {
  int i;
  if (strcmp(uuid, m.self) == 0) return NULL;
  for (i = 0; i < m.count; ++i) {
    if (strcmp(m.others[i].uuid, uuid) == 0) return &m.others[i];
  }
  if (!add || m.count == MAX_OTHERS) return NULL;
  Other* o = &m.others[m.count++];
  memset(o, 0, sizeof *o);
  snprintf(o->uuid, TEXT, "%s", uuid);
  o->identity = frame_code_identity(uuid);
  o->firstFrameMs = -1;
  return o;
}

static Other* otherByStream(const char* stream) {
  int i;
  for (i = 0; i < m.count; ++i) {
    if (m.others[i].stream[0] != '\0' && strcmp(m.others[i].stream, stream) == 0) {
      return &m.others[i];
    }
  }
  return NULL;
}

static void onAdded(const char* uuid) {
  pthread_mutex_lock(&m.lock);
  Other* o = otherByUuid(uuid, 1);
  if (o) {
    o->present = 1;
    ++m.arrivals;
    if (m.samples) fprintf(m.samples, "J %llu %s\n", demo_wall_ms(), uuid);
  }
  pthread_mutex_unlock(&m.lock);
}

static void onRemoved(const char* uuid) {
  pthread_mutex_lock(&m.lock);
  Other* o = otherByUuid(uuid, 0);
  if (o) {
    o->present = 0;
    o->stream[0] = '\0';
    ++m.departures;
    if (m.samples) fprintf(m.samples, "L %llu %s\n", demo_wall_ms(), uuid);
  }
  pthread_mutex_unlock(&m.lock);
}

static void onVideoAdded(const char* uuid, const char* id) {
  pthread_mutex_lock(&m.lock);
  Other* o = otherByUuid(uuid, 1);
  if (o) {
    snprintf(o->stream, TEXT, "%s", id);
    o->enablePending = 1;
    o->since = demo_now();
  }
  pthread_mutex_unlock(&m.lock);
}

static void onFrame(const char* id, void* buffer) {
  const double t = demo_now();
  FrameCode code;
  const int coded = frame_code_read(buffer, &code) == 0;
  const unsigned arrivedMs = frame_code_now_ms();
  pthread_mutex_lock(&m.lock);
  Other* o = otherByStream(id);
  if (o) {
    if (o->windowStart == 0) {
      o->windowStart = t;
      o->firstFrameMs = (t - (o->since > m.joinedAt ? o->since : m.joinedAt)) * 1000;
    }
    if (coded && code.identity != o->identity) ++o->wrong;
    if (coded && code.identity == o->identity && m.samples) {
      fprintf(m.samples, "F %llu %s %d %u\n", demo_wall_ms(), o->uuid,
              (int)(arrivedMs - code.captureMs), code.frame);
    }
    if (inWindow(o, t)) {
      ++o->frames;
      if (coded && code.identity == o->identity) {
        if (o->codes == 0 || code.frame < o->lowest) o->lowest = code.frame;
        if (o->codes == 0 || code.frame > o->highest) o->highest = code.frame;
        ++o->codes;
        if (o->latencyCount < MAX_LATENCIES) {
          o->latencies[o->latencyCount++] = (int)(arrivedMs - code.captureMs);
        }
      }
      /* A picture now and then is enough for the snapshot; copying each would cost a frame's
       * worth of work every time. */
      if (m.wantSnapshot && o == &m.others[0] && t - m.lastCopy >= SNAPSHOT_INTERVAL_S) {
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
  Other* o = otherByUuid(uuid, 0);
  if (o && amplitude > 0) {
    if (inWindow(o, demo_now())) ++o->amplitudes;
    if (m.samples) fprintf(m.samples, "A %llu %s %u\n", demo_wall_ms(), uuid, amplitude);
  }
  pthread_mutex_unlock(&m.lock);
}

static void onConditions(int received, int sent, int dataBytesDropped, int ctrlBytesDropped,
                         int cpuUsage, int bars, int upstreamLoss, int upstreamLatency,
                         int downstreamLoss, int downstreamLatency) {
  (void)dataBytesDropped, (void)ctrlBytesDropped, (void)cpuUsage, (void)upstreamLatency,
      (void)downstreamLatency;
  pthread_mutex_lock(&m.lock);
  if (m.samples) {
    fprintf(m.samples, "C %llu %d %d %d %d %d\n", demo_wall_ms(), bars, downstreamLoss,
            upstreamLoss, received, sent);
  }
  if (m.count > 0 && inWindow(&m.others[0], demo_now())) {
    m.receivedSum += received;
    m.sentSum += sent;
    ++m.conditions;
  }
  pthread_mutex_unlock(&m.lock);
}

static int joined = -1;
static void onJoined(bool ok) { joined = ok ? 1 : 0; }

static void registerCallbacks(void) {
  ConvokeParticipantCallback added = onAdded, removed = onRemoved;
  ConvokeParticipantStreamCallback videoAdded = onVideoAdded;
  ConvokeVideoBufferCallback frame = onFrame;
  ConvokeAmplitudeCallback amplitude = onAmplitude;
  ConvokeAudioConditionCallback conditions = onConditions;
  DEMO_REGISTER(DelegateCallbackSlotParticipantAdded, added);
  DEMO_REGISTER(DelegateCallbackSlotParticipantRemoved, removed);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoAdded, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotVideoFrameReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAmplitudeChanged, amplitude);
  DEMO_REGISTER(DelegateCallbackSlotAudioConditionUpdate, conditions);
}

/* The command line; --uuid and --window go straight into m. */
typedef struct {
  const char *server, *meeting, *name, *role, *snapshot, *camera, *samples;
  int expect, everyMs;
  double duration;
} Options;

static int join(const Options* o) {
  joined = -1;
  joinMeeting(o->server, o->meeting, "live-meeting-key", m.self, o->name, onJoined);
  if (joined != 1) {
    fprintf(stderr, "live-host %s: could not join: %s\n", o->name, getLastError());
    return -1;
  }
  if (!enableAudioInput("test-tone") || !enableAudioOutput("null-speaker") ||
      !enableVideoCapture(o->camera, "VP8 640x480 (30FPS)")) {
    fprintf(stderr, "live-host %s: devices refused: %s\n", o->name, getLastError());
    return -1;
  }
  return 0;
}

/* Waits up to `limit` seconds for `done`, rendering each other's stream once it is announced. */
static int waitFor(int (*done)(void), double limit) {
  const double end = demo_now() + limit;
  while (demo_now() < end) {
    char streams[MAX_OTHERS][TEXT];
    int n = 0, i;
    pthread_mutex_lock(&m.lock);
    for (i = 0; i < m.count; ++i) {
      if (m.others[i].enablePending) {
        m.others[i].enablePending = 0;
        snprintf(streams[n++], TEXT, "%s", m.others[i].stream);
      }
    }
    pthread_mutex_unlock(&m.lock);
    for (i = 0; i < n; ++i) {
      if (streams[i][0] != '\0' && !enableVideoStream(streams[i], "RGB888")) {
        fprintf(stderr, "live-host: rendering refused: %s\n", getLastError());
      }
    }
    pthread_mutex_lock(&m.lock);
    const int ok = done();
    pthread_mutex_unlock(&m.lock);
    if (ok) return 0;
    demo_pause_ms(50); /* each wake-up costs, and nothing here needs to be quicker */
  }
  return -1;
}

static int expected = 1;
static int never(void) { return 0; }
static int present(void) {
  int i, n = 0;
  for (i = 0; i < m.count; ++i) n += m.others[i].present;
  return n;
}
static int othersHere(void) { return present() >= expected; }
static int othersGone(void) { return present() == 0; }
static int windowsOver(void) {
  int i, over = 0;
  for (i = 0; i < m.count; ++i) {
    const Other* o = &m.others[i];
    if (o->windowStart > 0 && demo_now() - o->windowStart > m.windowSeconds) ++over;
  }
  return over >= expected;
}

/* The colour bars of the static camera (GStreamer's videotestsrc): seven full-height bars of full
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

static int readOptions(int argc, char** argv, Options* o) {
  int i;
  o->server = o->meeting = o->name = o->snapshot = o->samples = NULL;
  o->role = "stay";
  o->camera = "test-camera";
  o->expect = 1;
  o->duration = 0;
  o->everyMs = 300;
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
    else if (strcmp(argv[i], "--duration") == 0)
      o->duration = atof(argv[i + 1]);
    else if (strcmp(argv[i], "--expect") == 0)
      o->expect = atoi(argv[i + 1]);
    else if (strcmp(argv[i], "--camera") == 0)
      o->camera = argv[i + 1];
    else if (strcmp(argv[i], "--snapshot") == 0)
      o->snapshot = argv[i + 1];
    else if (strcmp(argv[i], "--samples") == 0)
      o->samples = argv[i + 1];
    else if (strcmp(argv[i], "--every") == 0)
      o->everyMs = atoi(argv[i + 1]);
    else
      break;
  }
  if (!o->server || !o->meeting || !o->name || m.self[0] == '\0' || i != argc || o->expect < 1 ||
      o->expect > MAX_OTHERS || o->everyMs < 10) {
    fprintf(stderr,
            "usage: live-host --server HOST --meeting ID --name NAME --uuid UUID "
            "--role stay|rejoin|watch|churn [--expect N] [--window SECONDS] "
            "[--duration SECONDS] [--every MS] [--camera ID] [--snapshot FILE.png] "
            "[--samples FILE]\n");
    return -1;
  }
  return 0;
}

/* Writes the last frame of the first other participant to `path`; says what it showed. */
static const char* takeSnapshot(const char* path, const char* camera) {
  const char* result;
  const DemoImage* images[1];
  pthread_mutex_lock(&m.lock);
  images[0] = &m.last;
  if (strcmp(camera, "test-pattern") == 0) {
    result = looksLikeTestPattern(&m.last) ? "test pattern" : "wrong picture";
  } else {
    result = m.count > 0 && m.others[0].codes > 0 && m.others[0].wrong == 0 ? "its own picture"
                                                                            : "wrong picture";
  }
  if (m.last.pixels == NULL || demo_write_mosaic(path, images, 1) != 0) result = "missing";
  pthread_mutex_unlock(&m.lock);
  return result;
}

/* After the measured window: "rejoin" leaves, comes back and sees the others leave; "stay" sees
 * the others leave and come back; "watch" stays until its duration is over. Non-zero when that did
 * not happen. */
static int afterWindow(const Options* o) {
  if (strcmp(o->role, "watch") == 0) {
    waitFor(never, o->duration - (demo_now() - m.joinedAt));
    return 0;
  }
  if (strcmp(o->role, "rejoin") == 0) {
    /* The others' windows began at their own first frames, which may have come later than ours:
     * stay until those windows are over too, so that leaving does not cut them short. */
    waitFor(never, LATER_WINDOW_MARGIN_S);
    exitMeeting();
    demo_pause_ms(1500);
    pthread_mutex_lock(&m.lock);
    for (int i = 0; i < m.count; ++i) m.others[i].present = 0;
    pthread_mutex_unlock(&m.lock);
    if (join(o) != 0 || waitFor(othersHere, 20) != 0 || waitFor(othersGone, 30) != 0) {
      fprintf(stderr, "live-host %s: did not see the others leave after rejoining\n", o->name);
      return 1;
    }
    return 0;
  }
  if (waitFor(othersGone, 30) != 0 || waitFor(othersHere, 30) != 0) {
    fprintf(stderr, "live-host %s: did not see the others leave and come back\n", o->name);
    return 1;
  }
  demo_pause_ms(2000); /* the others see us before we go */
  return 0;
}

static int compareInts(const void* a, const void* b) {
  const int x = *(const int*)a, y = *(const int*)b;
  return (x > y) - (x < y);
}

/* The figures lines; non-zero when a figure shows that something never happened. */
static int report(const Options* o, const char* snapshotResult) {
  int failed = 0, i;
  unsigned long fewestFrames = 0, fewestAmplitudes = 0;
  double latestFirst = -1;
  pthread_mutex_lock(&m.lock);
  for (i = 0; i < m.count; ++i) {
    Other* other = &m.others[i];
    const unsigned long span = other->codes ? other->highest - other->lowest + 1 : 0;
    int median = -1, p95 = -1;
    if (other->latencyCount > 0) {
      qsort(other->latencies, (size_t)other->latencyCount, sizeof(int), compareInts);
      median = other->latencies[other->latencyCount / 2];
      p95 = other->latencies[(other->latencyCount * 95) / 100];
    }
    printf(
        "live-host %s: from %s frames %lu, first frame %.0f ms, amplitude %lu, codes %lu, "
        "wrong identity %lu, missing %lu, latency median %d ms p95 %d ms\n",
        o->name, other->uuid, other->frames, other->firstFrameMs, other->amplitudes, other->codes,
        other->wrong, span > other->codes ? span - other->codes : 0, median, p95);
    if (i == 0 || other->frames < fewestFrames) fewestFrames = other->frames;
    if (i == 0 || other->amplitudes < fewestAmplitudes) fewestAmplitudes = other->amplitudes;
    if (other->firstFrameMs > latestFirst) latestFirst = other->firstFrameMs;
    if (other->wrong > 0) failed = 1;
    if (strcmp(o->camera, "test-camera") == 0 && other->codes == 0) failed = 1;
  }
  printf(
      "live-host %s: frames %lu, first frame %.0f ms, amplitude %lu, arrivals %lu, departures %lu, "
      "snapshot %s, bytes/s in %.0f out %.0f\n",
      o->name, fewestFrames, latestFirst, fewestAmplitudes, m.arrivals, m.departures,
      snapshotResult, m.conditions ? m.receivedSum / m.conditions : 0.0,
      m.conditions ? m.sentSum / m.conditions : 0.0);
  if (m.count < o->expect || fewestFrames == 0 || fewestAmplitudes == 0 || m.arrivals == 0) {
    failed = 1;
  }
  if (strcmp(o->role, "watch") != 0 && m.departures == 0) failed = 1;
  if (o->snapshot != NULL && strcmp(snapshotResult, "test pattern") != 0 &&
      strcmp(snapshotResult, "its own picture") != 0) {
    failed = 1;
  }
  pthread_mutex_unlock(&m.lock);
  fflush(stdout);
  return failed;
}

/* "churn": joins and leaves again every --every ms (staying half of it) for --duration seconds,
 * the way a peer on a bad connection or a misbehaving client comes and goes; the others must keep
 * their meeting. Non-zero when no join succeeded. */
static int churn(const Options* o) {
  const double start = demo_now(), end = start + o->duration;
  unsigned long cycles = 0, refused = 0;
  while (demo_now() < end) {
    const double began = demo_now();
    joined = -1;
    joinMeeting(o->server, o->meeting, "live-meeting-key", m.self, o->name, onJoined);
    if (joined != 1 || !enableAudioInput("test-tone") ||
        !enableVideoCapture(o->camera, "VP8 640x480 (30FPS)")) {
      ++refused;
    }
    demo_pause_ms(o->everyMs / 2);
    exitMeeting();
    ++cycles;
    const double left = o->everyMs / 1000.0 - (demo_now() - began);
    if (left > 0) demo_pause_ms((int)(left * 1000));
  }
  printf("live-host %s: %lu joins and leaves in %.0f s (%.0f a minute), %lu refused\n", o->name,
         cycles, demo_now() - start, cycles * 60 / (demo_now() - start), refused);
  fflush(stdout);
  return cycles == refused;
}

int main(int argc, char** argv) {
  Options o;
  const char* snapshotResult = "none";
  int failed = 0;
  m.windowSeconds = 10;
  if (readOptions(argc, argv, &o) != 0) return 2;
  expected = o.expect;
  pthread_mutex_init(&m.lock, NULL);
  m.wantSnapshot = o.snapshot != NULL;
  if (o.samples != NULL && (m.samples = fopen(o.samples, "w")) == NULL) {
    perror(o.samples);
    return 2;
  }
  ConvokeInitialize();
  registerCallbacks();

  if (strcmp(o.role, "churn") == 0) {
    failed = churn(&o);
    ConvokeDeallocate();
    return failed;
  }
  if (join(&o) != 0) return 1;
  pthread_mutex_lock(&m.lock);
  m.joinedAt = demo_now();
  pthread_mutex_unlock(&m.lock);
  if (waitFor(othersHere, 60) != 0) {
    fprintf(stderr, "live-host %s: fewer than %d others arrived\n", o.name, o.expect);
    failed = 1;
  } else if (waitFor(windowsOver, 30 + m.windowSeconds) != 0) {
    fprintf(stderr, "live-host %s: no frame from some of the others\n", o.name);
    failed = 1;
  }
  if (o.snapshot != NULL) snapshotResult = takeSnapshot(o.snapshot, o.camera);
  if (!failed) failed = afterWindow(&o);
  exitMeeting();

  if (report(&o, snapshotResult)) failed = 1;
  ConvokeDeallocate();
  pthread_mutex_lock(&m.lock);
  if (m.samples) fclose(m.samples);
  m.samples = NULL;
  pthread_mutex_unlock(&m.lock);
  return failed;
}
