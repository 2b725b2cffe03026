/* From the library's callbacks to the gallery's model.
 *
 * The callbacks run on the library's threads (engine threads, one frame timer per stream, the
 * joining thread). Each copies its arguments, and the facts it will need that the library can still
 * answer at that moment (a stream's name and size, a participant's site), into a GalleryMessage and
 * posts it as an SDL user event; SDL_PushEvent may be called from any thread. The user-interface
 * thread applies the messages in order. No callback touches the Gallery or SDL's video functions.
 *
 * Frames: the frame callback posts only the frame descriptor's address. The user-interface thread
 * copies the picture straight from the descriptor into the stream's streaming texture, once per new
 * frame, checking the descriptor's sequence number before and after the copy (ktengine/frame.h); a
 * copy that overlapped the engine's next write is redone at the next frame's message. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "convoke/convoke.h"
#include "demo_clock.h"
#include "demo_register.h"
#include "demo_slots.h"
#include "gallery.h"
#include "ktengine/frame.h"

typedef enum {
  MSG_PERSON_ADDED,
  MSG_PERSON_REMOVED,
  MSG_AUDIO_ADDED,
  MSG_VIDEO_ADDED, /* added or re-announced */
  MSG_VIDEO_REMOVED,
  MSG_LAYOUT,
  MSG_FRAME, /* a buffer was announced or a new frame is ready */
  MSG_AMPLITUDE,
  MSG_INPUT_METER,
  MSG_OUTPUT_METER,
  MSG_CONDITIONS,
  MSG_PLAYBACK_FAILED
} MessageKind;

typedef struct {
  MessageKind kind;
  char uuid[GALLERY_TEXT];
  char id[GALLERY_TEXT];
  char text[GALLERY_TEXT]; /* site or stream name */
  int values[10];
  const void* pointer;
} Message;

static Uint32 messageEvent;

double gallery_now(void) { return demo_now(); }

static void copyText(char* out, const char* text) {
  snprintf(out, GALLERY_TEXT, "%s", text != NULL ? text : "");
}

static Message* newMessage(MessageKind kind, const char* uuid, const char* id) {
  Message* m = calloc(1, sizeof *m);
  if (m == NULL) return NULL;
  m->kind = kind;
  copyText(m->uuid, uuid);
  copyText(m->id, id);
  return m;
}

static void post(Message* m) {
  SDL_Event event;
  if (m == NULL) return;
  SDL_zero(event);
  event.type = messageEvent;
  event.user.data1 = m;
  if (SDL_PushEvent(&event) != 1) free(m); /* the queue is full or SDL is shutting down */
}

/* ---- callbacks (library threads) ---------------------------------------------------------- */

static void onParticipantAdded(const char* uuid) {
  Message* m = newMessage(MSG_PERSON_ADDED, uuid, "");
  const char* site = NULL;
  if (m == NULL) return;
  getParticipantString(uuid, InfoKeySite, &site);
  copyText(m->text, site);
  m->values[0] = getParticipantBool(uuid, InfoKeyLocal);
  post(m);
}

static void onParticipantRemoved(const char* uuid) {
  post(newMessage(MSG_PERSON_REMOVED, uuid, ""));
}

static void onAudioAdded(const char* uuid) {
  Message* m = newMessage(MSG_AUDIO_ADDED, uuid, "");
  const char* value = NULL;
  if (m == NULL) return;
  getParticipantAudioInfoStreamId(uuid, &value);
  copyText(m->id, value);
  value = NULL;
  getParticipantAudioInfoSite(uuid, &value);
  copyText(m->text, value);
  post(m);
}

static void onVideoAdded(const char* uuid, const char* id) {
  Message* m = newMessage(MSG_VIDEO_ADDED, uuid, id);
  const char* name = NULL;
  const char* codec = NULL;
  if (m == NULL) return;
  getVideoInfoString(id, InfoKeyName, &name);
  copyText(m->text, name);
  getVideoInfoString(id, InfoKeyCodecName, &codec);
  m->values[0] = getVideoInfoBool(id, InfoKeyLocal);
  m->values[1] = getVideoInfoBool(id, InfoKeyActive);
  m->values[2] = getVideoInfoInt(id, InfoKeyWidth);
  m->values[3] = getVideoInfoInt(id, InfoKeyHeight);
  m->values[4] = getVideoInfoInt(id, InfoKeyLayout);
  m->values[5] = isScreenShare(m->text) || (codec != NULL && isScreenShare(codec));
  post(m);
}

static void onVideoRemoved(const char* uuid, const char* id) {
  post(newMessage(MSG_VIDEO_REMOVED, uuid, id));
}

static void onLayoutChanged(const char* uuid, const char* id) {
  Message* m = newMessage(MSG_LAYOUT, uuid, id);
  if (m == NULL) return;
  m->values[0] = getVideoInfoInt(id, InfoKeyLayout);
  post(m);
}

static void onFrame(const char* id, void* buffer) {
  Message* m = newMessage(MSG_FRAME, "", id);
  if (m == NULL) return;
  m->pointer = buffer;
  post(m);
}

static void onAmplitude(const char* uuid, unsigned char amplitude, bool muted) {
  Message* m = newMessage(MSG_AMPLITUDE, uuid, "");
  if (m == NULL) return;
  m->values[0] = amplitude;
  m->values[1] = muted;
  post(m);
}

static void postLevel(MessageKind kind, int level) {
  Message* m = newMessage(kind, "", "");
  if (m == NULL) return;
  m->values[0] = level;
  post(m);
}

static void onInputMeter(unsigned char level) { postLevel(MSG_INPUT_METER, level); }
static void onOutputMeter(unsigned char level) { postLevel(MSG_OUTPUT_METER, level); }

static void onConditions(int received, int sent, int dataDropped, int ctrlDropped, int cpu,
                         int bars, int upLoss, int upLatency, int downLoss, int downLatency) {
  Message* m = newMessage(MSG_CONDITIONS, "", "");
  const int values[10] = {received, sent,   dataDropped, ctrlDropped, cpu,
                          bars,     upLoss, upLatency,   downLoss,    downLatency};
  if (m == NULL) return;
  memcpy(m->values, values, sizeof values);
  post(m);
}

static void onPlaybackFailed(unsigned long long id) {
  (void)id;
  post(newMessage(MSG_PLAYBACK_FAILED, "", ""));
}

void gallery_register_callbacks(Uint32 eventType) {
  ConvokeParticipantCallback added = onParticipantAdded, removed = onParticipantRemoved,
                             audio = onAudioAdded;
  ConvokeParticipantStreamCallback videoAdded = onVideoAdded, videoRemoved = onVideoRemoved,
                                   layout = onLayoutChanged;
  ConvokeVideoBufferCallback frame = onFrame;
  ConvokeAmplitudeCallback amplitude = onAmplitude;
  ConvokeMeterCallback input = onInputMeter, output = onOutputMeter;
  ConvokeAudioConditionCallback conditions = onConditions;
  ConvokePlaybackCallback failed = onPlaybackFailed;
  messageEvent = eventType;
  DEMO_REGISTER(DelegateCallbackSlotParticipantAdded, added);
  DEMO_REGISTER(DelegateCallbackSlotParticipantRemoved, removed);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAudioAdded, audio);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAudioUpdated, audio);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoAdded, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoUpdated, videoAdded);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoRemoved, videoRemoved);
  DEMO_REGISTER(DelegateCallbackSlotParticipantVideoRemoteLayoutChanged, layout);
  DEMO_REGISTER(DelegateCallbackSlotVideoStreamBufferReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotVideoFrameReady, frame);
  DEMO_REGISTER(DelegateCallbackSlotParticipantAmplitudeChanged, amplitude);
  DEMO_REGISTER(DelegateCallbackSlotInputMeterChanged, input);
  DEMO_REGISTER(DelegateCallbackSlotOutputMeterChanged, output);
  DEMO_REGISTER(DelegateCallbackSlotAudioConditionUpdate, conditions);
  DEMO_REGISTER(DelegateCallbackSlotBinaryPlaybackFailed, failed);
}

/* ---- the model (user-interface thread) ---------------------------------------------------- */

/* A name until the camera's stream tells the real one: "ann.lee@example.com" reads "Ann Lee". */
static void nameFromUuid(char* out, const char* uuid) {
  const char* at = strchr(uuid, '@');
  int i, n = at != NULL ? (int)(at - uuid) : (int)strlen(uuid), word = 1;
  if (n >= GALLERY_TEXT) n = GALLERY_TEXT - 1;
  for (i = 0; i < n; ++i) {
    const char c = uuid[i] == '.' || uuid[i] == '_' ? ' ' : uuid[i];
    out[i] = word && c >= 'a' && c <= 'z' ? (char)(c - 'a' + 'A') : c;
    word = c == ' ';
  }
  out[n] = '\0';
}

GalleryPerson* gallery_person(Gallery* g, const char* uuid, int create) {
  int free;
  const int i = DEMO_FIND_SLOT(GalleryPerson, g->people, GALLERY_MAX_PEOPLE, uuid, uuid, &free);
  if (i >= 0) return &g->people[i];
  if (!create || free < 0) return NULL;
  memset(&g->people[free], 0, sizeof(GalleryPerson));
  copyText(g->people[free].uuid, uuid);
  nameFromUuid(g->people[free].name, uuid);
  g->people[free].present = 1;
  g->people[free].volume = 50;
  return &g->people[free];
}

GalleryStream* gallery_stream(Gallery* g, const char* id, int create) {
  int free;
  const int i = DEMO_FIND_SLOT(GalleryStream, g->streams, GALLERY_MAX_STREAMS, id, id, &free);
  if (i >= 0) return &g->streams[i];
  if (!create || free < 0) return NULL;
  {
    SDL_Texture* keep = g->streams[free].texture; /* reused when the next picture fits */
    const int w = g->streams[free].textureWidth, h = g->streams[free].textureHeight;
    const unsigned int format = g->streams[free].textureFormat;
    memset(&g->streams[free], 0, sizeof(GalleryStream));
    g->streams[free].texture = keep;
    g->streams[free].textureWidth = w;
    g->streams[free].textureHeight = h;
    g->streams[free].textureFormat = format;
  }
  copyText(g->streams[free].id, id);
  g->streams[free].present = 1;
  return &g->streams[free];
}

void gallery_toast(Gallery* g, const char* what, const char* why) {
  snprintf(g->toast, sizeof g->toast, "%s: %s", what, why != NULL ? why : "");
  g->toastUntil = gallery_now() + 4.0;
  g->dirty = 1;
  fprintf(stderr, "convoke-gallery: %s\n", g->toast);
}

static void removeStream(GalleryStream* s) {
  if (s->rendering) disableVideoStream(s->id); /* no frame callback of it runs once this returns */
  s->present = 0;
  s->rendering = 0;
  s->frame = NULL;
  s->textureWidth = s->textureHeight = 0; /* the texture is kept for a later stream */
}

/* The camera stream's name reads "First Last - Camera model": the part before " - ". */
static void nameFromStream(GalleryPerson* p, const char* streamName) {
  const char* dash = strstr(streamName, " - ");
  if (dash != NULL && dash > streamName) {
    snprintf(p->name, GALLERY_TEXT, "%.*s", (int)(dash - streamName), streamName);
  } else if (streamName[0] != '\0') {
    copyText(p->name, streamName);
  }
}

static void applyVideo(Gallery* g, const Message* m) {
  GalleryStream* s = gallery_stream(g, m->id, 1);
  GalleryPerson* owner = gallery_person(g, m->uuid, 0);
  if (s == NULL) return;
  copyText(s->owner, m->uuid);
  copyText(s->name, m->text);
  s->local = m->values[0];
  s->active = m->values[1];
  s->width = m->values[2];
  s->height = m->values[3];
  s->layout = m->values[4];
  s->screen = m->values[5];
  if (owner != NULL && !s->screen && !s->local) nameFromStream(owner, s->name);
  if (!s->rendering) {
    /* BGRA8888 is SDL's ARGB8888 on little-endian machines: rows go into the texture unchanged. */
    s->rendering = enableVideoStream(s->id, "BGRA8888");
    if (!s->rendering) gallery_toast(g, "video", getLastError());
  }
}

static void applyPersonRemoved(Gallery* g, const char* uuid) {
  GalleryPerson* p = gallery_person(g, uuid, 0);
  int i;
  for (i = 0; i < GALLERY_MAX_STREAMS; ++i) {
    if (g->streams[i].present && strcmp(g->streams[i].owner, uuid) == 0) {
      removeStream(&g->streams[i]);
    }
  }
  if (p != NULL) {
    p->present = 0;
    ++g->departures;
  }
}

void gallery_apply_message(Gallery* g, void* message) {
  Message* m = message;
  GalleryPerson* p;
  GalleryStream* s;
  g->dirty = 1;
  switch (m->kind) {
    case MSG_PERSON_ADDED:
      p = gallery_person(g, m->uuid, 1);
      if (p != NULL) {
        copyText(p->site, m->text);
        p->local = m->values[0];
        if (!p->local) {
          ++g->arrivals;
          gallery_chime(g);
        }
      }
      break;
    case MSG_PERSON_REMOVED:
      applyPersonRemoved(g, m->uuid);
      break;
    case MSG_AUDIO_ADDED:
      p = gallery_person(g, m->uuid, 0);
      if (p != NULL) {
        copyText(p->audioStream, m->id);
        if (m->text[0] != '\0') copyText(p->site, m->text);
      }
      break;
    case MSG_VIDEO_ADDED:
      applyVideo(g, m);
      break;
    case MSG_VIDEO_REMOVED:
      s = gallery_stream(g, m->id, 0);
      if (s != NULL) removeStream(s);
      break;
    case MSG_LAYOUT:
      s = gallery_stream(g, m->id, 0);
      if (s != NULL) s->layout = m->values[0];
      break;
    case MSG_FRAME:
      s = gallery_stream(g, m->id, 0);
      if (s != NULL && s->rendering) {
        s->frame = m->pointer;
        gallery_upload_frame(g, s);
      }
      break;
    case MSG_AMPLITUDE:
      p = gallery_person(g, m->uuid, 0);
      if (p != NULL) {
        p->amplitude = m->values[0];
        p->muted = m->values[1];
      }
      break;
    case MSG_INPUT_METER:
      g->inputMeter = m->values[0];
      break;
    case MSG_OUTPUT_METER:
      g->outputMeter = m->values[0];
      break;
    case MSG_CONDITIONS:
      memcpy(g->conditions, m->values, sizeof g->conditions);
      g->haveConditions = 1;
      break;
    case MSG_PLAYBACK_FAILED:
      gallery_toast(g, "sound", "the arrival sound could not be played");
      break;
  }
  free(m);
}

/* ---- frames into textures (user-interface thread) ----------------------------------------- */

static Uint32 textureFormatOf(const ktengine_frame* f) {
  if (f->bytes_per_pixel == 3) return SDL_PIXELFORMAT_RGB24;
  return f->format == KTENGINE_RGBA8888 ? SDL_PIXELFORMAT_ABGR8888 : SDL_PIXELFORMAT_ARGB8888;
}

void gallery_upload_frame(Gallery* g, GalleryStream* s) {
  const ktengine_frame* f = s->frame;
  unsigned long long before, after;
  int w, h, stride, bpp, y, pitch, tw = 0, th = 0;
  Uint32 format;
  unsigned char* pixels;
  if (f == NULL || f->magic != KTENGINE_FRAME_MAGIC) return;
  before = __atomic_load_n(&f->sequence, __ATOMIC_ACQUIRE);
  if ((before & 1u) != 0 || before == s->copiedSequence) return; /* being written, or copied */
  w = f->width, h = f->height, stride = f->stride, bpp = f->bytes_per_pixel;
  if (w <= 0 || h <= 0 || (bpp != 3 && bpp != 4) || stride < w * bpp) return;
  format = textureFormatOf(f);
  if (s->texture != NULL) SDL_QueryTexture(s->texture, NULL, NULL, &tw, &th);
  if (s->texture == NULL || s->textureFormat != format || tw != w || th != h) {
    if (s->texture != NULL) SDL_DestroyTexture(s->texture);
    s->texture = SDL_CreateTexture(g->renderer, format, SDL_TEXTUREACCESS_STREAMING, w, h);
    if (s->texture == NULL) return;
    s->textureFormat = format;
  }
  if (SDL_LockTexture(s->texture, NULL, (void**)&pixels, &pitch) != 0) return;
  /* The one copy of the frame: from the engine's buffer into the texture. */
  if (pitch == stride && stride == w * bpp) {
    memcpy(pixels, f->data, (size_t)stride * (size_t)h);
  } else {
    for (y = 0; y < h; ++y) {
      memcpy(pixels + (size_t)y * pitch, f->data + (size_t)y * stride, (size_t)w * bpp);
    }
  }
  SDL_UnlockTexture(s->texture);
  __atomic_thread_fence(__ATOMIC_ACQUIRE); /* the pixel reads above happen before the check */
  after = __atomic_load_n(&f->sequence, __ATOMIC_ACQUIRE);
  s->textureWidth = w;
  s->textureHeight = h;
  if (after == before) { /* whole: the engine did not write during the copy */
    s->copiedSequence = before;
    ++s->frames;
  }
}
