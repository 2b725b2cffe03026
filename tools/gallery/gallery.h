/* convoke-gallery's shared state: the meeting as the user interface sees it.
 *
 * Threads: the library calls the host's callbacks on its engine and frame-timer threads. Those
 * callbacks (gallery_model.c) only copy what they are given into a GalleryMessage and post it to
 * the user-interface thread as an SDL user event. Everything below (the Gallery, its people and
 * streams, SDL's renderer and textures) belongs to the user-interface thread alone, so none of it
 * needs a lock. */
#ifndef CONVOKE_TOOLS_GALLERY_H
#define CONVOKE_TOOLS_GALLERY_H

#include <SDL.h>
#include <SDL_ttf.h>

#define GALLERY_TEXT 160
#define GALLERY_MAX_PEOPLE 64
#define GALLERY_MAX_STREAMS 96
#define GALLERY_MAX_TILES 72

typedef struct {
  char uuid[GALLERY_TEXT];
  char name[GALLERY_TEXT]; /* from the camera's stream name ("Ann Lee - Camera"), else the UUID */
  char site[GALLERY_TEXT];
  char audioStream[GALLERY_TEXT];
  int present, local, amplitude, muted;
  int volume; /* 0-255, the playback volume of the audio stream (the library starts it at 50) */
} GalleryPerson;

typedef struct {
  char id[GALLERY_TEXT];
  char owner[GALLERY_TEXT];
  char name[GALLERY_TEXT];
  int present, local, screen, active, width, height, layout;
  int rendering;                     /* enableVideoStream accepted it */
  const void* frame;                 /* the engine's frame descriptor (ktengine/frame.h) */
  unsigned long long copiedSequence; /* the frame already in the texture */
  SDL_Texture* texture;
  int textureWidth, textureHeight; /* the picture in the texture, 0 before the first frame */
  unsigned int textureFormat;
  unsigned long frames;
} GalleryStream;

/* Where one tile was drawn, for clicks, the mouse wheel and the screenshot report. */
typedef struct {
  int person; /* index into people */
  int stream; /* index into streams, -1 for a name tile */
  SDL_Rect cell, picture;
} GalleryTile;

typedef enum {
  GALLERY_MIC,
  GALLERY_CAMERA,
  GALLERY_SPEAKERS,
  GALLERY_SHARE,
  GALLERY_DEVICES
} GalleryDevice;

typedef struct {
  /* The meeting. */
  GalleryPerson people[GALLERY_MAX_PEOPLE];
  GalleryStream streams[GALLERY_MAX_STREAMS];
  int inputMeter, outputMeter;
  int conditions[10]; /* slot 16's figures, in its order */
  int haveConditions;
  unsigned long arrivals, departures;

  char selfName[GALLERY_TEXT]; /* the name we joined with */

  /* The local devices: the chosen id of each kind and whether it is on. */
  char device[GALLERY_DEVICES][GALLERY_TEXT];
  int on[GALLERY_DEVICES];
  int picker;      /* the device kind whose list is open, -1 for none */
  char toast[256]; /* the latest refusal, shown until toastUntil */
  double toastUntil;
  double lastChime;

  /* The window. */
  SDL_Window* window;
  SDL_Renderer* renderer;
  TTF_Font* font;
  TTF_Font* bigFont;
  int width, height;
  GalleryTile tiles[GALLERY_MAX_TILES];
  int tileCount;
  SDL_Rect screenRect; /* the shared screen, w == 0 when none */
  int screenStream;
  SDL_Rect buttons[GALLERY_DEVICES + 1]; /* the four device buttons and Leave */
  SDL_Rect carets[GALLERY_DEVICES];      /* each button's picker opener */
  SDL_Rect choices[16];                  /* the open picker's entries */
  char choiceIds[16][GALLERY_TEXT];
  int choiceCount;
  int dirty;   /* something changed since the last redraw */
  int leaving; /* Q, the Leave button or the window was closed */
} Gallery;

/* ---- gallery_model.c ---- */
/* Registers the callbacks that post GalleryMessages (SDL event type `eventType`). */
void gallery_register_callbacks(Uint32 eventType);
/* Applies one posted message to the gallery and frees it (user-interface thread). */
void gallery_apply_message(Gallery* g, void* message);
/* Copies the newest frame of a stream into its texture when it has not been copied yet. */
void gallery_upload_frame(Gallery* g, GalleryStream* s);
GalleryPerson* gallery_person(Gallery* g, const char* uuid, int create);
GalleryStream* gallery_stream(Gallery* g, const char* id, int create);
/* Shows text (a refusal) in the status bar for a few seconds. */
void gallery_toast(Gallery* g, const char* what, const char* why);
double gallery_now(void);

/* ---- gallery_view.c ---- */
/* Lays out and draws the whole window (does not present it). */
void gallery_draw(Gallery* g);
/* Prints where each tile and the shared screen are, for a screenshot's reader. */
void gallery_report(const Gallery* g, const char* path);
/* Frees the cached text textures. */
void gallery_forget_texts(void);

/* ---- gallery_controls.c ---- */
/* Switches the chosen device of a kind on or off (keys M, V, S, D). */
void gallery_toggle(Gallery* g, GalleryDevice kind);
/* Picks the initial devices (the preferred ones) and switches microphone, speakers and camera on.
 */
void gallery_start_devices(Gallery* g);
/* Handles a click: buttons, pickers, tiles. */
void gallery_click(Gallery* g, int x, int y);
/* The mouse wheel over a tile changes that participant's volume. */
void gallery_wheel(Gallery* g, int x, int y, int steps);
/* Plays the arrival chime (at most once a second). */
void gallery_chime(Gallery* g);
/* Fills the open picker's entries (ids and labels) for kind. */
int gallery_device_list(GalleryDevice kind, char ids[][GALLERY_TEXT], int max);

#endif /* CONVOKE_TOOLS_GALLERY_H */
