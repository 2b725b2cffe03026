/*
 * convoke-demo: a host written in plain C against convoke.h only. It joins a meeting (with the
 * simulated engines: a scripted meeting on this machine), picks a microphone, speakers and camera
 * from the device lists, renders every remote video stream as it appears, and shows the meeting
 * live until Ctrl-C or the end of --duration. It then leaves and prints a summary.
 *
 *   convoke-demo [--participants N] [--duration SECONDS] [--name NAME] [--meeting ID]
 *                [--server HOST] [--snapshot FILE.png] [--plain]
 *
 * On a terminal the view is redrawn a few times per second; otherwise (or with --plain) it prints
 * plain lines. --snapshot writes a mosaic of the last frame of every video stream as a PNG. A value
 * that does not parse or is out of range ends it with status 2 before it joins; a snapshot that
 * cannot be written, with status 1.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "convoke/convoke.h"
#include "demo_clock.h"
#include "demo_frame.h"
#include "demo_options.h"
#include "demo_register.h"
#include "demo_slots.h"

#define MAX_PARTICIPANTS 64
#define MAX_STREAMS 128
#define TEXT 128

typedef struct {
  char uuid[TEXT];
  int present;
  int amplitude;
  int muted;
} Person;

typedef struct {
  char id[TEXT];
  char owner[TEXT];
  int present;
  int enableRequested; /* queued for the main loop, which enables it */
  int enabled;
  unsigned long frames;
  unsigned long framesAtLastTick;
  double fps;
  void* buffer;
  DemoImage last; /* the last frame copied for --snapshot */
} Stream;

typedef struct {
  pthread_mutex_t lock;
  Person people[MAX_PARTICIPANTS];
  Stream streams[MAX_STREAMS];
  int inputMeter;
  int outputMeter;
  int conditions[10];
  int haveConditions;
  unsigned long events;
  unsigned long arrivals;
  unsigned long departures;
  unsigned long playbacksEnded;
  int wantSnapshot;
} Model;

static Model model; /* the lock is initialised in main, before any callback is registered */
static volatile sig_atomic_t interrupted = 0;
static int joinResult = -1;

/* ---- model updates (called on engine and timer threads) ------------------------------------ */

static Person* person(const char* uuid, int create) {
  int free;
  const int i = DEMO_FIND_SLOT(Person, model.people, MAX_PARTICIPANTS, uuid, uuid, &free);
  if (i >= 0) return &model.people[i];
  if (!create || free < 0) return NULL;
  memset(&model.people[free], 0, sizeof(Person));
  snprintf(model.people[free].uuid, TEXT, "%s", uuid);
  model.people[free].present = 1;
  return &model.people[free];
}

static Stream* stream(const char* id, int create) {
  int free;
  const int i = DEMO_FIND_SLOT(Stream, model.streams, MAX_STREAMS, id, id, &free);
  if (i >= 0) return &model.streams[i];
  if (!create || free < 0) return NULL;
  demo_image_free(&model.streams[free].last);
  memset(&model.streams[free], 0, sizeof(Stream));
  snprintf(model.streams[free].id, TEXT, "%s", id);
  model.streams[free].present = 1;
  return &model.streams[free];
}

static void onParticipantAdded(const char* uuid) {
  pthread_mutex_lock(&model.lock);
  person(uuid, 1);
  ++model.arrivals;
  ++model.events;
  pthread_mutex_unlock(&model.lock);
}

static void onParticipantRemoved(const char* uuid) {
  int i;
  pthread_mutex_lock(&model.lock);
  Person* p = person(uuid, 0);
  if (p != NULL) p->present = 0;
  for (i = 0; i < MAX_STREAMS; ++i) {
    if (model.streams[i].present && strcmp(model.streams[i].owner, uuid) == 0) {
      model.streams[i].present = 0;
    }
  }
  ++model.departures;
  ++model.events;
  pthread_mutex_unlock(&model.lock);
}

static void onVideoAdded(const char* uuid, const char* id) {
  pthread_mutex_lock(&model.lock);
  Stream* s = stream(id, 1);
  if (s != NULL) {
    snprintf(s->owner, TEXT, "%s", uuid);
    s->enableRequested = 1;
  }
  ++model.events;
  pthread_mutex_unlock(&model.lock);
}

static void onVideoRemoved(const char* uuid, const char* id) {
  (void)uuid;
  pthread_mutex_lock(&model.lock);
  Stream* s = stream(id, 0);
  if (s != NULL) s->present = 0;
  ++model.events;
  pthread_mutex_unlock(&model.lock);
}

static void onFrameReady(const char* id, void* buffer) {
  pthread_mutex_lock(&model.lock);
  Stream* s = stream(id, 0);
  if (s != NULL) {
    ++s->frames;
    s->buffer = buffer;
    if (model.wantSnapshot) demo_image_copy_frame(&s->last, buffer);
  }
  pthread_mutex_unlock(&model.lock);
}

static void onAmplitude(const char* uuid, unsigned char amplitude, bool muted) {
  pthread_mutex_lock(&model.lock);
  Person* p = person(uuid, 0);
  if (p != NULL) {
    p->amplitude = amplitude;
    p->muted = muted;
  }
  ++model.events;
  pthread_mutex_unlock(&model.lock);
}

static void onInputMeter(unsigned char level) {
  pthread_mutex_lock(&model.lock);
  model.inputMeter = level;
  pthread_mutex_unlock(&model.lock);
}

static void onOutputMeter(unsigned char level) {
  pthread_mutex_lock(&model.lock);
  model.outputMeter = level;
  pthread_mutex_unlock(&model.lock);
}

static void onAudioConditions(int a, int b, int c, int d, int e, int f, int g, int h, int i,
                              int j) {
  pthread_mutex_lock(&model.lock);
  int values[10];
  values[0] = a;
  values[1] = b;
  values[2] = c;
  values[3] = d;
  values[4] = e;
  values[5] = f;
  values[6] = g;
  values[7] = h;
  values[8] = i;
  values[9] = j;
  memcpy(model.conditions, values, sizeof values);
  model.haveConditions = 1;
  pthread_mutex_unlock(&model.lock);
}

static void onPlaybackEnded(unsigned long long id) {
  (void)id;
  pthread_mutex_lock(&model.lock);
  ++model.playbacksEnded;
  pthread_mutex_unlock(&model.lock);
}

static void onJoined(bool ok) { joinResult = ok ? 1 : 0; }

static void onSignal(int signal) {
  (void)signal;
  interrupted = 1;
}

static void registerCallbacks(void) {
  ConvokeParticipantCallback added = onParticipantAdded, removed = onParticipantRemoved;
  ConvokeParticipantStreamCallback videoAdded = onVideoAdded, videoRemoved = onVideoRemoved;
  ConvokeVideoBufferCallback frame = onFrameReady;
  ConvokeAmplitudeCallback amplitude = onAmplitude;
  ConvokeMeterCallback input = onInputMeter, output = onOutputMeter;
  ConvokeAudioConditionCallback conditions = onAudioConditions;
  ConvokePlaybackCallback ended = onPlaybackEnded;
  DEMO_REGISTER(DelegateCallbackSlotParticipantAdded, added);
  DEMO_REGISTER(DelegateCallbackSlotParticipantRemoved, removed);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoAdded, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoRemoved, videoRemoved);
  DEMO_REGISTER(DelegateCallbackSlotVideoFrameReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAmplitudeChanged, amplitude);
  DEMO_REGISTER(DelegateCallbackSlotInputMeterChanged, input);
  DEMO_REGISTER(DelegateCallbackSlotOutputMeterChanged, output);
  DEMO_REGISTER(DelegateCallbackSlotAudioConditionUpdate, conditions);
  DEMO_REGISTER(DelegateCallbackSlotBinaryPlaybackEnded, ended);
}

/* ---- devices ------------------------------------------------------------------------------ */

/* Enables the preferred audio device of a list (else its first) and says which it is. */
static void pickAudio(const char* label, void (*list)(char***, unsigned short*, char**),
                      int (*enable)(const char*)) {
  char** devices = NULL;
  unsigned short count = 0;
  char* preferred = NULL;
  list(&devices, &count, &preferred);
  if (count > 0) {
    const char* device = preferred != NULL ? preferred : devices[0];
    printf("%-11s %s (%u available)%s\n", label, device, count,
           enable(device) ? "" : getLastError());
  }
  free(preferred);
}

static void pickDevices(void) {
  char** list = NULL;
  char** screens = NULL;
  unsigned short count = 0, screenCount = 0;

  pickAudio("microphone:", getAudioInputDevices, enableAudioInput);
  pickAudio("speakers:", getAudioOutputDevices, enableAudioOutput);

  getVideoDevices(&list, &count, &screens, &screenCount);
  if (count > 0) {
    char camera[TEXT];
    char** codecs = NULL;
    unsigned short codecCount = 0;
    snprintf(camera, sizeof camera, "%s", list[0]);
    getSupportedVideoSendResolutions(camera, &codecs, &codecCount);
    const char* mode = codecCount > 0 ? codecs[0] : "default";
    printf("camera:     %s in %s (%u cameras, %u screens)%s\n", camera, mode, count, screenCount,
           enableVideoCapture(camera, mode) ? "" : getLastError());
  }
}

/* ---- view --------------------------------------------------------------------------------- */

static void bar(char* out, int level, int width) {
  int i, filled = level * width / 100;
  if (filled > width) filled = width;
  for (i = 0; i < width; ++i) out[i] = i < filled ? '#' : '.';
  out[width] = '\0';
}

/* Enables the streams announced since the last pass; runs on the main thread. */
static void enablePendingStreams(void) {
  char pending[MAX_STREAMS][TEXT];
  int i, n = 0;
  pthread_mutex_lock(&model.lock);
  for (i = 0; i < MAX_STREAMS; ++i) {
    if (model.streams[i].present && model.streams[i].enableRequested) {
      model.streams[i].enableRequested = 0;
      snprintf(pending[n++], TEXT, "%s", model.streams[i].id);
    }
  }
  pthread_mutex_unlock(&model.lock);
  for (i = 0; i < n; ++i) {
    const char* local = NULL;
    getVideoInfoString(pending[i], InfoKeyId, &local);
    if (getVideoInfoBool(pending[i], InfoKeyLocal)) continue; /* our own camera */
    if (enableVideoStream(pending[i], "RGB888")) {
      pthread_mutex_lock(&model.lock);
      Stream* s = stream(pending[i], 0);
      if (s != NULL) s->enabled = 1;
      pthread_mutex_unlock(&model.lock);
    }
  }
}

static void tickRates(double elapsed) {
  int i;
  pthread_mutex_lock(&model.lock);
  for (i = 0; i < MAX_STREAMS; ++i) {
    Stream* s = &model.streams[i];
    if (!s->present) continue;
    s->fps = (double)(s->frames - s->framesAtLastTick) / elapsed;
    s->framesAtLastTick = s->frames;
  }
  pthread_mutex_unlock(&model.lock);
}

static void draw(int redraw, double remaining) {
  int i, j;
  char meter[2][24];
  pthread_mutex_lock(&model.lock);
  if (redraw) printf("\033[H\033[2J");
  bar(meter[0], model.inputMeter, 20);
  bar(meter[1], model.outputMeter, 20);
  printf("Convoke demo: %.0f s left, %lu events  |  mic %s  spk %s\n", remaining, model.events,
         meter[0], meter[1]);
  if (model.haveConditions) {
    printf(
        "network: received %d sent %d dropped %d/%d cpu %d%% bars %d up %d%%/%dms down %d%%/%dms\n",
        model.conditions[0], model.conditions[1], model.conditions[2], model.conditions[3],
        model.conditions[4], model.conditions[5], model.conditions[6], model.conditions[7],
        model.conditions[8], model.conditions[9]);
  }
  for (i = 0; i < MAX_PARTICIPANTS; ++i) {
    Person* p = &model.people[i];
    const char* site = NULL;
    char level[24];
    if (!p->present) continue;
    getParticipantString(p->uuid, InfoKeySite, &site);
    bar(level, p->amplitude, 12);
    printf("%c %-28.28s %-22.22s %s %s\n", getParticipantBool(p->uuid, InfoKeyLocal) ? '*' : ' ',
           p->uuid, site != NULL ? site : "", level, p->muted ? "muted" : "");
    for (j = 0; j < MAX_STREAMS; ++j) {
      Stream* s = &model.streams[j];
      const char* name = NULL;
      char nameCopy[TEXT];
      if (!s->present || strcmp(s->owner, p->uuid) != 0) continue;
      getVideoInfoString(s->id, InfoKeyName, &name);
      snprintf(nameCopy, sizeof nameCopy, "%s", name != NULL ? name : "");
      printf("    video %-10.10s %-26.26s %4dx%-4d layout %d  %5.1f fps%s\n", s->id, nameCopy,
             getVideoInfoInt(s->id, InfoKeyWidth), getVideoInfoInt(s->id, InfoKeyHeight),
             getVideoInfoInt(s->id, InfoKeyLayout), s->fps,
             getVideoInfoBool(s->id, InfoKeyLocal) ? "  (local)" : "");
    }
  }
  fflush(stdout);
  pthread_mutex_unlock(&model.lock);
}

/* Runs the live view until the duration is over or a signal arrives. */
static void runView(double duration, int plain) {
  const double start = demo_now();
  double lastTick = start, lastPlain = start;
  while (!interrupted && demo_now() - start < duration) {
    const struct timespec pause = {0, 250 * 1000 * 1000};
    const double t = demo_now();
    enablePendingStreams();
    if (t - lastTick >= 1.0) {
      tickRates(t - lastTick);
      lastTick = t;
    }
    if (!plain) {
      draw(1, duration - (t - start));
    } else if (t - lastPlain >= 2.0) {
      draw(0, duration - (t - start));
      printf("\n");
      lastPlain = t;
    }
    nanosleep(&pause, NULL);
  }
}

static void printSummary(void) {
  unsigned long frames = 0;
  int streams = 0, i;
  pthread_mutex_lock(&model.lock);
  for (i = 0; i < MAX_STREAMS; ++i) {
    if (model.streams[i].frames > 0) {
      frames += model.streams[i].frames;
      ++streams;
    }
  }
  printf("\n%s. Summary: %lu arrivals, %lu departures, %lu events, %lu frames from %d streams.\n",
         interrupted ? "Interrupted" : "Meeting over", model.arrivals, model.departures,
         model.events, frames, streams);
  pthread_mutex_unlock(&model.lock);
}

/* Writes the mosaic of every stream's last frame. Returns the process's exit status. */
static int writeSnapshot(const char* path) {
  const DemoImage* images[MAX_STREAMS];
  int n = 0, i, status = DEMO_EXIT_OK;
  pthread_mutex_lock(&model.lock);
  for (i = 0; i < MAX_STREAMS; ++i) {
    if (model.streams[i].last.pixels != NULL) images[n++] = &model.streams[i].last;
  }
  if (demo_write_mosaic(path, images, n) == 0) {
    printf("snapshot of %d streams written to %s\n", n, path);
  } else {
    fprintf(stderr, "could not write %s: %s\n", path, strerror(errno));
    status = DEMO_EXIT_FAILED;
  }
  pthread_mutex_unlock(&model.lock);
  return status;
}

int main(int argc, char** argv) {
  DemoMeetingOptions meeting = {"localhost", "demo", "Demo User", -1, 20};
  const char* snapshot = NULL;
  int plain = !isatty(STDOUT_FILENO), status;
  char meetingId[512];
  struct sigaction action;
  const DemoOption options[] = {
      DEMO_MEETING_OPTIONS(meeting),
      {"--snapshot", DEMO_OPTION_OUTPUT, &snapshot, 0, 0, "FILE.png"},
      {"--plain", DEMO_OPTION_FLAG, &plain, 0, 0, NULL},
  };

  status = demo_parse_options(argc, argv, options, (int)(sizeof options / sizeof *options));
  if (status != DEMO_EXIT_OK) return status;
  if (demo_meeting_id(&meeting, meetingId, sizeof meetingId) != 0) {
    fprintf(stderr, "convoke-demo: --meeting is too long\n");
    return DEMO_EXIT_USAGE;
  }
  pthread_mutex_init(&model.lock, NULL);
  model.wantSnapshot = snapshot != NULL;
  memset(&action, 0, sizeof action);
  action.sa_handler = onSignal;
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);

  ConvokeInitialize();
  registerCallbacks();
  printf("joining %s on %s as %s\n", meetingId, meeting.server, meeting.name);
  joinMeeting(meeting.server, meetingId, "demo-meeting-key", "", meeting.name, onJoined);
  if (joinResult != 1) {
    fprintf(stderr, "could not join the meeting\n");
    return DEMO_EXIT_FAILED;
  }
  pickDevices();
  runView(meeting.duration, plain);
  exitMeeting();
  printSummary();
  status = snapshot != NULL ? writeSnapshot(snapshot) : DEMO_EXIT_OK;
  ConvokeDeallocate();
  return status;
}
