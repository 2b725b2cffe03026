/*
 * live-features: one of three participants of tools/live-features, a host written in plain C
 * against convoke.h. Every host publishes the virtual camera and microphone and renders every
 * remote stream it is told about. Once it has seen the two others, each follows a timeline:
 *   a  plays sounds (two overlapping, one stopped early, one unreadable), renders its own camera,
 *      mutes and unmutes its microphone, turns its camera to portrait and back;
 *      publishes network video from a file (after two sources it must refuse) and stops it;
 *   b  shares the first screen the engine lists, and stops sharing it;
 *   c  watches: notes what it sees of a and b and writes a snapshot of the streams it receives
 *      (the two cameras and the shared screen; taken before the network video starts).
 * Each host prints timestamped lines "live-features NAME t=SECONDS WHAT" (CLOCK_MONOTONIC, shared
 * by the three processes) and ends with "live-features NAME: done".
 *
 *   live-features --server HOST --meeting ID --name NAME --uuid UUID --role a|b|c
 *                 [--snapshot FILE.png] [--clip VIDEO-FILE --no-video SOUND-FILE]
 */
#define _POSIX_C_SOURCE 200809L

#include <math.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "convoke/convoke.h"
#include "demo_clock.h"
#include "demo_frame.h"
#include "demo_register.h"

#define TEXT 160
#define STREAMS 8
#define TIMELINE_S 20.0

typedef struct {
  char id[TEXT];
  char owner[TEXT];
  int pending; /* rendering to be asked for by the main loop */
  unsigned long frames;
  int lastWidth, lastHeight; /* of the frames */
  int infoWidth, infoHeight, infoLayout;
  DemoImage last;
} Stream;

static struct {
  pthread_mutex_t lock;
  char self[TEXT], name[TEXT], role[4];
  int others;
  char otherIds[4][TEXT];
  int mutedSeen[4]; /* -1 unknown, 0, 1: the last muted flag per other participant */
  Stream streams[STREAMS];
  int streamCount;
} m;

static void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void say(const char* format, ...) {
  va_list args;
  char text[512];
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  printf("live-features %s t=%.3f %s\n", m.name, demo_now(), text);
  fflush(stdout);
}

static Stream* findStream(const char* id) {
  int i;
  for (i = 0; i < m.streamCount; ++i) {
    if (strcmp(m.streams[i].id, id) == 0) return &m.streams[i];
  }
  return NULL;
}

static int otherIndex(const char* uuid) {
  int i;
  for (i = 0; i < m.others; ++i) {
    if (strcmp(m.otherIds[i], uuid) == 0) return i;
  }
  return -1;
}

static void onAdded(const char* uuid) {
  pthread_mutex_lock(&m.lock);
  if (strcmp(uuid, m.self) != 0 && otherIndex(uuid) < 0 && m.others < 4) {
    snprintf(m.otherIds[m.others], TEXT, "%s", uuid);
    m.mutedSeen[m.others] = -1;
    ++m.others;
  }
  pthread_mutex_unlock(&m.lock);
}

static void onVideoAdded(const char* uuid, const char* id) {
  /* Each getVideoInfoString overwrites the text of the one before: copy each at once. */
  const char* text = NULL;
  char codecText[TEXT] = "", nameText[TEXT] = "";
  getVideoInfoString(id, InfoKeyCodecName, &text);
  snprintf(codecText, TEXT, "%s", text ? text : "");
  text = NULL;
  getVideoInfoString(id, InfoKeyName, &text);
  snprintf(nameText, TEXT, "%s", text ? text : "");
  const char* codec = codecText;
  const char* name = nameText;
  const int w = getVideoInfoInt(id, InfoKeyWidth), h = getVideoInfoInt(id, InfoKeyHeight);
  const int layout = getVideoInfoInt(id, InfoKeyLayout);
  pthread_mutex_lock(&m.lock);
  if (findStream(id) == NULL && m.streamCount < STREAMS) {
    Stream* s = &m.streams[m.streamCount++];
    memset(s, 0, sizeof *s);
    snprintf(s->id, TEXT, "%s", id);
    snprintf(s->owner, TEXT, "%s", uuid);
    s->pending = 1;
    s->infoWidth = w, s->infoHeight = h, s->infoLayout = layout;
  }
  pthread_mutex_unlock(&m.lock);
  say("video added %s of %s: name '%s', codec '%s', %dx%d, layout %d, screen share %s", id, uuid,
      name, codec, w, h, layout, isScreenShare(codec) ? "yes" : "no");
}

static void onVideoRemoved(const char* uuid, const char* id) {
  say("video removed %s of %s", id, uuid);
}

static void onLayout(const char* uuid, const char* id) {
  say("remote layout changed %s of %s: layout %d", id, uuid, getVideoInfoInt(id, InfoKeyLayout));
}

static void onFrame(const char* id, void* buffer) {
  pthread_mutex_lock(&m.lock);
  Stream* s = findStream(id);
  if (s != NULL) {
    ++s->frames;
    if (s->frames % 15 == 1) demo_image_copy_frame(&s->last, buffer);
    if (s->last.pixels && (s->last.width != s->lastWidth || s->last.height != s->lastHeight)) {
      s->lastWidth = s->last.width;
      s->lastHeight = s->last.height;
      pthread_mutex_unlock(&m.lock);
      say("frames of %s now %dx%d", id, s->lastWidth, s->lastHeight);
      return;
    }
  }
  pthread_mutex_unlock(&m.lock);
}

static void onAmplitude(const char* uuid, unsigned char amplitude, bool muted) {
  pthread_mutex_lock(&m.lock);
  const int i = otherIndex(uuid);
  const int changed = i >= 0 && m.mutedSeen[i] != (muted ? 1 : 0);
  if (changed) m.mutedSeen[i] = muted ? 1 : 0;
  pthread_mutex_unlock(&m.lock);
  if (changed) say("muted %s %s (amplitude %d)", uuid, muted ? "true" : "false", amplitude);
}

static void onEnded(unsigned long long id) { say("sound ended %llu", id); }
static void onFailed(unsigned long long id) { say("sound failed %llu", id); }

static int joined = -1;
static void onJoined(bool ok) { joined = ok ? 1 : 0; }

static void registerCallbacks(void) {
  ConvokeParticipantCallback added = onAdded;
  ConvokeParticipantStreamCallback videoAdded = onVideoAdded, videoRemoved = onVideoRemoved,
                                   layout = onLayout;
  ConvokeVideoBufferCallback frame = onFrame;
  ConvokeAmplitudeCallback amplitude = onAmplitude;
  ConvokePlaybackCallback ended = onEnded, failed = onFailed;
  DEMO_REGISTER(DelegateCallbackSlotParticipantAdded, added);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoAdded, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoRemoved, videoRemoved);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoRemoteLayoutChanged, layout);
  DEMO_REGISTER(DelegateCallbackSlotVideoFrameReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAmplitudeChanged, amplitude);
  DEMO_REGISTER(DelegateCallbackSlotBinaryPlaybackEnded, ended);
  DEMO_REGISTER(DelegateCallbackSlotBinaryPlaybackFailed, failed);
}

/* A 16-bit PCM WAV file of a tone: `seconds` long at `rate` Hz, `channels` channels. */
static char* makeWav(double seconds, int rate, int channels, unsigned long* size) {
  const unsigned long frames = (unsigned long)(seconds * rate);
  const unsigned long data = frames * channels * 2;
  unsigned char* w = malloc(44 + data);
  unsigned long i;
  int c;
  const unsigned long v[] = {36 + data,
                             16,
                             1 | (channels << 16),
                             (unsigned long)rate,
                             (unsigned long)rate * channels * 2,
                             (channels * 2) | (16 << 16),
                             data};
  const char* tags[] = {"RIFF", "WAVE", "fmt ", "data"};
  if (w == NULL) return NULL;
  memcpy(w, tags[0], 4);
  memcpy(w + 8, tags[1], 4);
  memcpy(w + 12, tags[2], 4);
  memcpy(w + 36, tags[3], 4);
  for (i = 0; i < 4; ++i) {
    const int at[] = {4, 16, 20, 24};
    w[at[i]] = v[i] & 0xff, w[at[i] + 1] = (v[i] >> 8) & 0xff;
    w[at[i] + 2] = (v[i] >> 16) & 0xff, w[at[i] + 3] = (v[i] >> 24) & 0xff;
  }
  for (i = 0; i < 3; ++i) {
    const int at[] = {28, 32, 40};
    const unsigned long x = v[4 + i];
    w[at[i]] = x & 0xff, w[at[i] + 1] = (x >> 8) & 0xff;
    w[at[i] + 2] = (x >> 16) & 0xff, w[at[i] + 3] = (x >> 24) & 0xff;
  }
  for (i = 0; i < frames; ++i) {
    const short s = (short)(8000 * sin(2 * 3.14159265 * 660 * (double)i / rate));
    for (c = 0; c < channels; ++c) {
      w[44 + (i * channels + c) * 2] = s & 0xff;
      w[44 + (i * channels + c) * 2 + 1] = (s >> 8) & 0xff;
    }
  }
  *size = 44 + data;
  return (char*)w;
}

/* Asks for the rendering of streams announced since the last call. */
static void renderPending(void) {
  int i;
  for (i = 0; i < STREAMS; ++i) {
    char id[TEXT] = "";
    pthread_mutex_lock(&m.lock);
    if (i < m.streamCount && m.streams[i].pending) {
      m.streams[i].pending = 0;
      snprintf(id, TEXT, "%s", m.streams[i].id);
    }
    pthread_mutex_unlock(&m.lock);
    if (id[0] != '\0') {
      if (enableVideoStream(id, "RGB888")) {
        say("rendering %s", id);
      } else {
        say("rendering %s refused: %s", id, getLastError());
      }
    }
  }
}

/* Notes changes of the stored size of each stream (video_stream_size_changed has no callback). */
static void watchSizes(void) {
  int i;
  for (i = 0; i < STREAMS; ++i) {
    char id[TEXT] = "";
    int w = 0, h = 0;
    pthread_mutex_lock(&m.lock);
    if (i < m.streamCount) snprintf(id, TEXT, "%s", m.streams[i].id);
    pthread_mutex_unlock(&m.lock);
    if (id[0] == '\0') continue;
    w = getVideoInfoInt(id, InfoKeyWidth);
    h = getVideoInfoInt(id, InfoKeyHeight);
    pthread_mutex_lock(&m.lock);
    Stream* s = &m.streams[i];
    const int changed = w != 0 && (w != s->infoWidth || h != s->infoHeight);
    if (changed) s->infoWidth = w, s->infoHeight = h;
    pthread_mutex_unlock(&m.lock);
    if (changed) say("stream size changed %s: %dx%d", id, w, h);
  }
}

static void snapshot(const char* path) {
  const DemoImage* images[STREAMS];
  int i, n = 0;
  pthread_mutex_lock(&m.lock);
  for (i = 0; i < m.streamCount; ++i) {
    /* What came from the others: their cameras and shared screens. */
    if (m.streams[i].last.pixels && strncmp(m.streams[i].id, "local/", 6) != 0) {
      images[n++] = &m.streams[i].last;
    }
  }
  const int ok = n > 0 && demo_write_mosaic(path, images, n) == 0;
  pthread_mutex_unlock(&m.lock);
  say("snapshot %s of %d streams: %s", path, n, ok ? "written" : "missing");
}

static void screenCentre(void) {
  int i;
  pthread_mutex_lock(&m.lock);
  for (i = 0; i < m.streamCount; ++i) {
    const DemoImage* d = &m.streams[i].last;
    if (d->pixels) {
      const unsigned char* p = d->pixels + ((size_t)(d->height / 2) * d->width + d->width / 2) * 3;
      printf("live-features %s t=%.3f pixel %s centre %d,%d,%d\n", m.name, demo_now(),
             m.streams[i].id, p[0], p[1], p[2]);
    }
  }
  pthread_mutex_unlock(&m.lock);
}

int main(int argc, char** argv) {
  const char *server = NULL, *meeting = NULL, *snapshotPath = NULL, *clip = NULL, *noVideo = NULL;
  int i;
  for (i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--server") == 0)
      server = argv[i + 1];
    else if (strcmp(argv[i], "--meeting") == 0)
      meeting = argv[i + 1];
    else if (strcmp(argv[i], "--name") == 0)
      snprintf(m.name, TEXT, "%s", argv[i + 1]);
    else if (strcmp(argv[i], "--uuid") == 0)
      snprintf(m.self, TEXT, "%s", argv[i + 1]);
    else if (strcmp(argv[i], "--role") == 0)
      snprintf(m.role, sizeof m.role, "%s", argv[i + 1]);
    else if (strcmp(argv[i], "--snapshot") == 0)
      snapshotPath = argv[i + 1];
    else if (strcmp(argv[i], "--clip") == 0)
      clip = argv[i + 1];
    else if (strcmp(argv[i], "--no-video") == 0)
      noVideo = argv[i + 1];
  }
  if (!server || !meeting || !m.name[0] || !m.self[0] || !m.role[0] || i != argc) {
    fprintf(stderr,
            "usage: live-features --server HOST --meeting ID --name NAME --uuid UUID "
            "--role a|b|c [--snapshot FILE.png] [--clip VIDEO-FILE --no-video SOUND-FILE]\n");
    return 2;
  }
  pthread_mutex_init(&m.lock, NULL);
  ConvokeInitialize();
  registerCallbacks();
  joinMeeting(server, meeting, "live-features-key", m.self, m.name, onJoined);
  if (joined != 1 || !enableAudioInput("test-tone") || !enableAudioOutput("null-speaker") ||
      !enableVideoCapture("test-pattern", "VP8 640x480 (30FPS)")) {
    say("could not join or set up devices: %s", getLastError());
    return 1;
  }
  say("joined");
  const double limit = demo_now() + 40;
  for (;;) {
    renderPending();
    pthread_mutex_lock(&m.lock);
    const int others = m.others;
    pthread_mutex_unlock(&m.lock);
    if (others >= 2) break;
    if (demo_now() > limit) {
      say("the two others never arrived");
      exitMeeting();
      return 1;
    }
    demo_pause_ms(50);
  }
  say("everyone here");

  const int a = strcmp(m.role, "a") == 0, b = strcmp(m.role, "b") == 0,
            c = strcmp(m.role, "c") == 0;
  unsigned long shortSize = 0, longSize = 0, endlessSize = 0;
  char* shortSound = makeWav(0.3, 16000, 1, &shortSize);
  char* longSound = makeWav(0.8, 44100, 2, &longSize);
  char* endless = makeWav(10, 8000, 1, &endlessSize);
  static const char broken[] = "not a sound at all";
  const double start = demo_now();
  int step = 0;
  char screen[TEXT] = "";
  if (b) {
    char **devices = NULL, **screens = NULL;
    unsigned short deviceCount = 0, screenCount = 0;
    getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
    for (i = 0; i < screenCount; ++i) say("screen listed: %s", screens[i]);
    if (screenCount > 0) snprintf(screen, TEXT, "%s", screens[0]); /* a real screen first */
  }
  while (demo_now() - start < TIMELINE_S) {
    const double t = demo_now() - start;
    renderPending();
    watchSizes();
    if (a && step == 0 && t > 1) {
      ++step;
      say("play sounds %lu %lu %lu %lu", (unsigned long)(size_t)longSound,
          (unsigned long)(size_t)shortSound, (unsigned long)(size_t)endless,
          (unsigned long)(size_t)broken);
      playSound(longSound, longSize);
      playSound(shortSound, shortSize);
      playSound(endless, endlessSize);
      playSound(broken, sizeof broken);
    } else if (a && step == 1 && t > 2.5) {
      ++step;
      say("stop sound %lu: %s", (unsigned long)(size_t)endless, stopSound(endless) ? "ok" : "no");
    } else if (a && step == 2 && t > 4) {
      ++step;
      say("mute: %s", disableAudioInput("test-tone") ? "ok" : getLastError());
    } else if (a && step == 3 && t > 6) {
      ++step;
      say("unmute: %s", enableAudioInput("test-tone") ? "ok" : getLastError());
    } else if (a && step == 4 && t > 8) {
      ++step;
      setDeviceOrientation(90);
      say("orientation 90");
    } else if (a && step == 5 && t > 11) {
      ++step;
      setDeviceOrientation(0);
      say("orientation 0");
    } else if (a && step == 6 && t > 13.5 && clip && noVideo) {
      ++step;
      const char* sources[] = {"/nonexistent/clip.webm", noVideo, clip};
      int k;
      for (k = 0; k < 3; ++k) {
        if (enableNetworkVideo(sources[k], "VP8 640x480 (30FPS)", "Clip")) {
          say("network video %s: ok", sources[k]);
        } else {
          say("network video %s refused: %s", sources[k], getLastError());
        }
      }
    } else if (a && step == 7 && t > 18 && clip) {
      ++step;
      say("network video stopped: %s", disableNetworkVideo(clip) ? "ok" : getLastError());
    } else if (b && step == 1 && t > 16) {
      ++step;
      say("stop sharing '%s': %s", screen, diableVideoCapture(screen) ? "ok" : getLastError());
    } else if (b && step == 0 && t > 1 && screen[0]) {
      ++step;
      say("share screen '%s': %s", screen,
          enableVideoCapture(screen, "VP8 4K (10FPS)") ? "ok" : getLastError());
    } else if (c && step == 0 && t > 13) {
      ++step;
      screenCentre();
      if (snapshotPath) snapshot(snapshotPath);
    }
    demo_pause_ms(20);
  }
  pthread_mutex_lock(&m.lock);
  for (i = 0; i < m.streamCount; ++i) {
    printf("live-features %s t=%.3f frames %s %lu\n", m.name, demo_now(), m.streams[i].id,
           m.streams[i].frames);
  }
  pthread_mutex_unlock(&m.lock);
  demo_pause_ms(2000); /* the others finish their timelines before this one leaves */
  exitMeeting();
  say("done");
  free(shortSound);
  free(longSound);
  free(endless);
  ConvokeDeallocate();
  return 0;
}
