/* What the user does: switching devices, choosing them, stream volumes and the arrival sound.
 * User-interface thread only. Every command the library refuses shows its getLastError text. */
#define _POSIX_C_SOURCE 200809L

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "convoke/convoke.h"
#include "gallery.h"

static const char* const kKinds[GALLERY_DEVICES] = {"microphone", "camera", "speakers",
                                                    "screen share"};

int gallery_device_list(GalleryDevice kind, char ids[][GALLERY_TEXT], int max) {
  char** list = NULL;
  char** screens = NULL;
  unsigned short count = 0, screenCount = 0, i;
  int n = 0;
  if (kind == GALLERY_MIC) getAudioInputDevices(&list, &count, NULL);
  if (kind == GALLERY_SPEAKERS) getAudioOutputDevices(&list, &count, NULL);
  if (kind == GALLERY_CAMERA || kind == GALLERY_SHARE) {
    getVideoDevices(&list, &count, &screens, &screenCount);
    if (kind == GALLERY_SHARE) list = screens, count = screenCount;
  }
  for (i = 0; i < count && n < max; ++i) snprintf(ids[n++], GALLERY_TEXT, "%s", list[i]);
  return n;
}

/* Switches device `id` of a kind on or off. Returns the library's answer. */
static int command(GalleryDevice kind, const char* id, int on) {
  char mode[GALLERY_TEXT] = "";
  if (kind == GALLERY_MIC) return on ? enableAudioInput(id) : disableAudioInput(id);
  if (kind == GALLERY_SPEAKERS) return on ? enableAudioOutput(id) : disableAudioOutput(id);
  if (!on) return diableVideoCapture(id);
  {
    char** codecs = NULL;
    unsigned short count = 0;
    getSupportedVideoSendResolutions(id, &codecs, &count);
    snprintf(mode, sizeof mode, "%s", count > 0 ? codecs[0] : "default");
  }
  return enableVideoCapture(id, mode);
}

static void set(Gallery* g, GalleryDevice kind, int on) {
  char what[64];
  if (g->device[kind][0] == '\0') {
    snprintf(what, sizeof what, "%s", kKinds[kind]);
    gallery_toast(g, what, "no device to switch");
    return;
  }
  if (command(kind, g->device[kind], on)) {
    g->on[kind] = on;
  } else {
    snprintf(what, sizeof what, "%s %s", kKinds[kind], on ? "on" : "off");
    gallery_toast(g, what, getLastError());
  }
  g->dirty = 1;
}

void gallery_toggle(Gallery* g, GalleryDevice kind) { set(g, kind, !g->on[kind]); }

void gallery_start_devices(Gallery* g) {
  char* preferred = NULL;
  char ids[16][GALLERY_TEXT];
  int kind;
  for (kind = 0; kind < GALLERY_DEVICES; ++kind) {
    if (gallery_device_list((GalleryDevice)kind, ids, 16) > 0) {
      snprintf(g->device[kind], GALLERY_TEXT, "%s", ids[0]);
    }
  }
  getAudioInputDevices(NULL, NULL, &preferred);
  if (preferred != NULL) snprintf(g->device[GALLERY_MIC], GALLERY_TEXT, "%s", preferred);
  free(preferred);
  preferred = NULL;
  getAudioOutputDevices(NULL, NULL, &preferred);
  if (preferred != NULL) snprintf(g->device[GALLERY_SPEAKERS], GALLERY_TEXT, "%s", preferred);
  free(preferred);
  set(g, GALLERY_MIC, 1);
  set(g, GALLERY_SPEAKERS, 1);
  set(g, GALLERY_CAMERA, 1);
}

/* Makes `id` the device of a kind; a device that was on is switched over. */
static void choose(Gallery* g, GalleryDevice kind, const char* id) {
  const int wasOn = g->on[kind];
  if (strcmp(id, g->device[kind]) == 0 && wasOn) return;
  if (wasOn) set(g, kind, 0);
  if (g->on[kind]) return; /* could not switch the old one off */
  snprintf(g->device[kind], GALLERY_TEXT, "%s", id);
  set(g, kind, 1);
}

static int inside(const SDL_Rect* r, int x, int y) {
  SDL_Point p;
  p.x = x, p.y = y;
  return SDL_PointInRect(&p, r);
}

void gallery_click(Gallery* g, int x, int y) {
  int i;
  g->dirty = 1;
  if (g->picker >= 0) {
    const int kind = g->picker;
    g->picker = -1;
    for (i = 0; i < g->choiceCount; ++i) {
      if (inside(&g->choices[i], x, y)) choose(g, (GalleryDevice)kind, g->choiceIds[i]);
    }
    return;
  }
  for (i = 0; i < GALLERY_DEVICES; ++i) {
    if (inside(&g->buttons[i], x, y)) gallery_toggle(g, (GalleryDevice)i);
    if (inside(&g->carets[i], x, y)) {
      g->picker = i;
      g->choiceCount = gallery_device_list((GalleryDevice)i, g->choiceIds, 16);
    }
  }
  if (inside(&g->buttons[GALLERY_DEVICES], x, y)) g->leaving = 1;
}

void gallery_wheel(Gallery* g, int x, int y, int steps) {
  int i;
  for (i = 0; i < g->tileCount; ++i) {
    GalleryPerson* p = &g->people[g->tiles[i].person];
    int volume;
    if (!inside(&g->tiles[i].cell, x, y) || p->local || p->audioStream[0] == '\0') continue;
    volume = p->volume + 16 * steps;
    volume = volume < 0 ? 0 : volume > 255 ? 255 : volume;
    if (setAudioStreamVolume(p->audioStream, (unsigned char)volume)) {
      p->volume = volume;
    } else {
      gallery_toast(g, "volume", getLastError());
    }
    g->dirty = 1;
  }
}

/* Two rising tones, 16-bit mono at 16 kHz: the format of the engines' sounds. The samples live as
 * long as the process, as playSound requires. */
enum { kRate = 16000, kSamples = kRate * 3 / 10 };
static short chime[kSamples];
static int chimeMade;

void gallery_chime(Gallery* g) {
  const double now = gallery_now();
  if (now - g->lastChime < 1.0) return; /* several arrivals at once ring once */
  g->lastChime = now;
  if (!chimeMade) {
    int i;
    chimeMade = 1;
    for (i = 0; i < kSamples; ++i) {
      const double t = (double)i / kRate, hertz = i < kSamples / 2 ? 660.0 : 880.0;
      const double envelope = 1.0 - (double)(i % (kSamples / 2)) / (kSamples / 2);
      chime[i] = (short)(9000.0 * envelope * sin(2.0 * 3.14159265358979 * hertz * t));
    }
  }
  /* playSound leaves the last-error text alone: a refusal has no text of its own. */
  if (!playSound((const char*)chime, sizeof chime)) gallery_toast(g, "sound", "refused");
}
