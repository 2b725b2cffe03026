/* Drawing the gallery: the toolbar, the shared screen, the tiles and the status line.
 *
 * Runs on the user-interface thread only. Texts are rendered with SDL_ttf once and kept as
 * textures in a small cache, so a redraw that shows the same words renders no glyph. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <string.h>

#include "gallery.h"

/* ---- colours ---------------------------------------------------------------------------- */

static const SDL_Color kWhite = {240, 240, 240, 255};
static const SDL_Color kGrey = {160, 160, 168, 255};
static const SDL_Color kRefusal = {255, 120, 110, 255};

static void fill(SDL_Renderer* r, const SDL_Rect* rect, int red, int green, int blue, int alpha) {
  SDL_SetRenderDrawColor(r, (Uint8)red, (Uint8)green, (Uint8)blue, (Uint8)alpha);
  SDL_RenderFillRect(r, rect);
}

/* The border that lights up with a participant's amplitude (0-100 and above): dark grey at rest,
 * amber while speaking. */
static void amplitudeColor(int amplitude, int* red, int* green, int* blue) {
  const int a = amplitude < 0 ? 0 : amplitude > 100 ? 100 : amplitude;
  *red = 50 + 2 * a;
  *green = 50 + 3 * a / 2;
  *blue = 50 - a / 3;
}

static void frameRect(SDL_Renderer* r, SDL_Rect inner, int width, int red, int green, int blue) {
  SDL_Rect edge;
  SDL_SetRenderDrawColor(r, (Uint8)red, (Uint8)green, (Uint8)blue, 255);
  edge = (SDL_Rect){inner.x - width, inner.y - width, inner.w + 2 * width, width};
  SDL_RenderFillRect(r, &edge);
  edge.y = inner.y + inner.h;
  SDL_RenderFillRect(r, &edge);
  edge = (SDL_Rect){inner.x - width, inner.y, width, inner.h};
  SDL_RenderFillRect(r, &edge);
  edge.x = inner.x + inner.w;
  SDL_RenderFillRect(r, &edge);
}

/* ---- text ------------------------------------------------------------------------------- */

typedef struct {
  char text[192];
  TTF_Font* font;
  Uint32 color;
  SDL_Texture* texture;
  int w, h;
  unsigned long used;
} CachedText;

static CachedText cache[160];
static unsigned long clock_;

void gallery_forget_texts(void) {
  size_t i;
  for (i = 0; i < sizeof cache / sizeof *cache; ++i) {
    if (cache[i].texture != NULL) SDL_DestroyTexture(cache[i].texture);
  }
  memset(cache, 0, sizeof cache);
}

static CachedText* text(Gallery* g, TTF_Font* font, const char* s, SDL_Color color) {
  const Uint32 key = (Uint32)color.r << 16 | (Uint32)color.g << 8 | color.b;
  size_t i, oldest = 0;
  SDL_Surface* surface;
  for (i = 0; i < sizeof cache / sizeof *cache; ++i) {
    CachedText* c = &cache[i];
    if (c->texture != NULL && c->font == font && c->color == key && strcmp(c->text, s) == 0) {
      c->used = ++clock_;
      return c;
    }
    if (cache[i].used < cache[oldest].used) oldest = i;
  }
  if (s[0] == '\0') return NULL;
  surface = TTF_RenderUTF8_Blended(font, s, color);
  if (surface == NULL) return NULL;
  if (cache[oldest].texture != NULL) SDL_DestroyTexture(cache[oldest].texture);
  cache[oldest].texture = SDL_CreateTextureFromSurface(g->renderer, surface);
  cache[oldest].w = surface->w;
  cache[oldest].h = surface->h;
  SDL_FreeSurface(surface);
  snprintf(cache[oldest].text, sizeof cache[oldest].text, "%s", s);
  cache[oldest].font = font;
  cache[oldest].color = key;
  cache[oldest].used = ++clock_;
  return cache[oldest].texture != NULL ? &cache[oldest] : NULL;
}

/* Draws s with its left edge at x (align 0), centred on x (1) or its right edge at x (2), clipped
 * to maxWidth. Returns the width drawn. */
static int drawText(Gallery* g, TTF_Font* font, const char* s, SDL_Color color, int x, int y,
                    int align, int maxWidth) {
  CachedText* t = text(g, font, s, color);
  SDL_Rect from, to;
  if (t == NULL) return 0;
  from = (SDL_Rect){0, 0, t->w < maxWidth ? t->w : maxWidth, t->h};
  to = (SDL_Rect){x - (align == 1 ? from.w / 2 : align == 2 ? from.w : 0), y, from.w, from.h};
  SDL_RenderCopy(g->renderer, t->texture, &from, &to);
  return from.w;
}

/* ---- layout ----------------------------------------------------------------------------- */

enum { kToolbar = 48, kStatus = 26, kGap = 8, kBorder = 4 };

static int screenStream(const Gallery* g) {
  int i;
  for (i = 0; i < GALLERY_MAX_STREAMS; ++i) {
    const GalleryStream* s = &g->streams[i];
    if (s->present && s->screen && s->active) return i;
  }
  return -1;
}

/* The participant's camera stream (not a screen), -1 when it has none. */
static int cameraOf(const Gallery* g, const GalleryPerson* p) {
  int i;
  for (i = 0; i < GALLERY_MAX_STREAMS; ++i) {
    const GalleryStream* s = &g->streams[i];
    if (s->present && !s->screen && s->active && strcmp(s->owner, p->uuid) == 0) return i;
  }
  return -1;
}

/* Fits a w x h picture into box, centred, keeping its aspect ratio. */
static SDL_Rect fit(SDL_Rect box, int w, int h) {
  SDL_Rect r = box;
  if (w <= 0 || h <= 0) return box;
  if ((long)box.w * h > (long)box.h * w) {
    r.w = (int)((long)box.h * w / h);
    r.x = box.x + (box.w - r.w) / 2;
  } else {
    r.h = (int)((long)box.w * h / w);
    r.y = box.y + (box.h - r.h) / 2;
  }
  return r;
}

/* Cells of 16:9 in a grid over area: as many columns as make the cells largest. */
static void layoutGrid(Gallery* g, SDL_Rect area, int count) {
  int columns, best = 1, bestWidth = 0, i;
  for (columns = 1; columns <= count; ++columns) {
    const int rows = (count + columns - 1) / columns;
    int w = (area.w - kGap * (columns + 1)) / columns;
    const int h = (area.h - kGap * (rows + 1)) / rows;
    if (w * 9 > h * 16) w = h * 16 / 9;
    if (w > bestWidth) bestWidth = w, best = columns;
  }
  {
    const int rows = (count + best - 1) / best;
    const int cellW = bestWidth, cellH = bestWidth * 9 / 16;
    const int x0 = area.x + (area.w - best * cellW - (best - 1) * kGap) / 2;
    const int y0 = area.y + (area.h - rows * cellH - (rows - 1) * kGap) / 2;
    for (i = 0; i < count; ++i) {
      GalleryTile* t = &g->tiles[i];
      t->cell = (SDL_Rect){x0 + (i % best) * (cellW + kGap), y0 + (i / best) * (cellH + kGap),
                           cellW, cellH};
      t->picture = t->cell;
      if (t->stream >= 0) {
        const GalleryStream* s = &g->streams[t->stream];
        const int w = s->textureWidth > 0 ? s->textureWidth : s->width;
        const int h = s->textureHeight > 0 ? s->textureHeight : s->height;
        SDL_Rect inner = {t->cell.x + kBorder, t->cell.y + kBorder, t->cell.w - 2 * kBorder,
                          t->cell.h - 2 * kBorder};
        t->picture = fit(inner, w, h);
      } else {
        t->picture = (SDL_Rect){t->cell.x + kBorder, t->cell.y + kBorder, t->cell.w - 2 * kBorder,
                                t->cell.h - 2 * kBorder};
      }
    }
  }
}

static void layout(Gallery* g) {
  SDL_Rect area = {0, kToolbar, g->width, g->height - kToolbar - kStatus};
  int i, n = 0, self = -1;
  for (i = 0; i < GALLERY_MAX_PEOPLE && n < GALLERY_MAX_TILES - 1; ++i) {
    const GalleryPerson* p = &g->people[i];
    if (!p->present) continue;
    if (p->local) {
      self = i;
      continue;
    }
    g->tiles[n].person = i;
    g->tiles[n].stream = cameraOf(g, p);
    ++n;
  }
  if (self >= 0) { /* the self view comes last */
    g->tiles[n].person = self;
    g->tiles[n].stream = cameraOf(g, &g->people[self]);
    ++n;
  }
  g->tileCount = n;
  g->screenStream = screenStream(g);
  g->screenRect = (SDL_Rect){0, 0, 0, 0};
  if (g->screenStream >= 0) { /* the shared screen large on the left, the gallery beside it */
    const GalleryStream* s = &g->streams[g->screenStream];
    const int w = area.w * 2 / 3;
    SDL_Rect box = {area.x + kGap, area.y + kGap, w - 2 * kGap, area.h - 2 * kGap};
    g->screenRect = fit(box, s->textureWidth > 0 ? s->textureWidth : s->width,
                        s->textureHeight > 0 ? s->textureHeight : s->height);
    area.x += w;
    area.w -= w;
  }
  if (n > 0) layoutGrid(g, area, n);
}

/* ---- drawing ---------------------------------------------------------------------------- */

static void drawButton(Gallery* g, int index, const char* key, const char* what) {
  const SDL_Rect b = g->buttons[index];
  char line[GALLERY_TEXT + 8];
  if (index == GALLERY_DEVICES) {
    fill(g->renderer, &b, 150, 40, 40, 255);
    drawText(g, g->font, "Q  Leave", kWhite, b.x + b.w / 2, b.y + 14, 1, b.w);
    return;
  }
  if (g->on[index]) {
    fill(g->renderer, &b, 40, 100, 60, 255);
  } else {
    fill(g->renderer, &b, 90, 40, 44, 255);
  }
  fill(g->renderer, &g->carets[index], 60, 60, 70, 255);
  snprintf(line, sizeof line, "%s  %s %s", key, what, g->on[index] ? "on" : "off");
  drawText(g, g->font, line, kWhite, b.x + 8, b.y + 4, 0, b.w - 12);
  drawText(g, g->font, g->device[index][0] != '\0' ? g->device[index] : "(none)", kGrey, b.x + 8,
           b.y + 21, 0, b.w - 12);
  drawText(g, g->font, "v", kWhite, g->carets[index].x + 8, g->carets[index].y + 12, 0, 20);
}

static void drawMeter(Gallery* g, int x, int y, const char* label, int level) {
  SDL_Rect back = {x + 34, y + 4, 80, 10}, bar = back;
  drawText(g, g->font, label, kGrey, x, y, 0, 34);
  fill(g->renderer, &back, 50, 50, 56, 255);
  bar.w = back.w * (level > 100 ? 100 : level) / 100;
  fill(g->renderer, &bar, 80, 200, 90, 255);
}

static void drawToolbar(Gallery* g) {
  static const char* const keys[GALLERY_DEVICES] = {"M", "V", "S", "D"};
  static const char* const names[GALLERY_DEVICES] = {"Mic", "Camera", "Speakers", "Share"};
  const SDL_Rect bar = {0, 0, g->width, kToolbar};
  int i, x = 8, right = g->width - 8;
  fill(g->renderer, &bar, 28, 28, 34, 255);
  for (i = 0; i < GALLERY_DEVICES; ++i) {
    g->buttons[i] = (SDL_Rect){x, 6, 150, kToolbar - 12};
    g->carets[i] = (SDL_Rect){x + 150, 6, 22, kToolbar - 12};
    drawButton(g, i, keys[i], names[i]);
    x += 180;
  }
  g->buttons[GALLERY_DEVICES] = (SDL_Rect){x, 6, 90, kToolbar - 12};
  drawButton(g, GALLERY_DEVICES, "Q", "Leave");
  /* Local meters and the network: bars, loss and latency each way. */
  right -= 250;
  if (right > x + 100) {
    drawMeter(g, right, 6, "mic", g->inputMeter);
    drawMeter(g, right, 24, "spk", g->outputMeter);
    if (g->haveConditions) {
      char line[96];
      int b;
      for (b = 0; b < 5; ++b) {
        SDL_Rect r = {right + 124 + b * 7, 38 - 5 * (b + 1), 5, 5 * (b + 1)};
        if (b < g->conditions[5]) {
          fill(g->renderer, &r, 90, 200, 255, 255);
        } else {
          fill(g->renderer, &r, 60, 60, 70, 255);
        }
      }
      snprintf(line, sizeof line, "up %d%% %dms", g->conditions[6], g->conditions[7]);
      drawText(g, g->font, line, kGrey, right + 164, 4, 0, 90);
      snprintf(line, sizeof line, "dn %d%% %dms", g->conditions[8], g->conditions[9]);
      drawText(g, g->font, line, kGrey, right + 164, 22, 0, 90);
    }
  }
}

/* A red square with a white stroke in the picture's top-right corner: the microphone is off. */
static void drawMutedMark(Gallery* g, SDL_Rect picture) {
  const SDL_Rect mark = {picture.x + picture.w - 28, picture.y + 6, 22, 22};
  int i;
  fill(g->renderer, &mark, 220, 40, 40, 255);
  SDL_SetRenderDrawColor(g->renderer, 255, 255, 255, 255);
  for (i = 0; i < 3; ++i) {
    SDL_RenderDrawLine(g->renderer, mark.x + 4 + i, mark.y + 4, mark.x + 17 + i, mark.y + 17);
  }
}

static void drawTile(Gallery* g, const GalleryTile* t) {
  const GalleryPerson* p = &g->people[t->person];
  const GalleryStream* s = t->stream >= 0 ? &g->streams[t->stream] : NULL;
  const int muted = p->local ? !g->on[GALLERY_MIC] : p->muted;
  const int level = p->local ? (g->on[GALLERY_MIC] ? g->inputMeter : 0) : p->amplitude;
  char label[2 * GALLERY_TEXT + 16];
  int red, green, blue;
  SDL_Rect bar;
  fill(g->renderer, &t->cell, 34, 34, 40, 255);
  if (s != NULL && s->texture != NULL && s->textureWidth > 0) {
    SDL_RenderCopy(g->renderer, s->texture, NULL, &t->picture);
  } else { /* no video: a name tile in a colour of the participant's own */
    unsigned int hash = 5381;
    const char* c;
    char initials[8] = "";
    for (c = p->uuid; *c != '\0'; ++c) hash = hash * 33u + (unsigned char)*c;
    fill(g->renderer, &t->picture, 60 + (int)(hash % 60), 60 + (int)(hash / 60 % 60),
         70 + (int)(hash / 3600 % 60), 255);
    const char* name = p->local ? g->selfName : p->name;
    initials[0] = name[0];
    c = strchr(name, ' ');
    if (c != NULL) initials[1] = c[1];
    drawText(g, g->bigFont, initials, kWhite, t->picture.x + t->picture.w / 2,
             t->picture.y + t->picture.h / 2 - 24, 1, t->picture.w);
  }
  amplitudeColor(level, &red, &green, &blue);
  frameRect(g->renderer, t->picture, kBorder, red, green, blue);
  bar = (SDL_Rect){t->picture.x, t->picture.y + t->picture.h - 22, t->picture.w, 22};
  SDL_SetRenderDrawBlendMode(g->renderer, SDL_BLENDMODE_BLEND);
  fill(g->renderer, &bar, 0, 0, 0, 150);
  SDL_SetRenderDrawBlendMode(g->renderer, SDL_BLENDMODE_NONE);
  if (p->local) {
    snprintf(label, sizeof label, "You (%s)", g->selfName);
  } else {
    snprintf(label, sizeof label, "%s - %s%s", p->name, p->site,
             s != NULL && s->layout != 0 ? " *" : "");
  }
  drawText(g, g->font, label, kWhite, bar.x + 6, bar.y + 3, 0, bar.w - 60);
  if (!p->local && p->audioStream[0] != '\0') {
    snprintf(label, sizeof label, "vol %d", p->volume);
    drawText(g, g->font, label, kGrey, bar.x + bar.w - 6, bar.y + 3, 2, 56);
  }
  if (muted) drawMutedMark(g, t->picture);
}

static void drawScreen(Gallery* g) {
  const GalleryStream* s = &g->streams[g->screenStream];
  const GalleryPerson* owner = gallery_person(g, s->owner, 0);
  char label[GALLERY_TEXT + 32];
  if (s->texture != NULL && s->textureWidth > 0) {
    SDL_RenderCopy(g->renderer, s->texture, NULL, &g->screenRect);
  } else {
    fill(g->renderer, &g->screenRect, 40, 44, 60, 255);
  }
  frameRect(g->renderer, g->screenRect, 2, 90, 200, 255);
  snprintf(label, sizeof label, "%s is sharing",
           s->local        ? "You are"
           : owner != NULL ? owner->name
                           : "Someone");
  if (s->local) snprintf(label, sizeof label, "You are sharing your screen");
  drawText(g, g->font, label, kWhite, g->screenRect.x + 8, g->screenRect.y + g->screenRect.h + 2, 0,
           g->screenRect.w);
}

static void drawPicker(Gallery* g) {
  const SDL_Rect caret = g->carets[g->picker];
  int i;
  for (i = 0; i < g->choiceCount; ++i) {
    const int chosen = strcmp(g->choiceIds[i], g->device[g->picker]) == 0;
    g->choices[i] = (SDL_Rect){caret.x - 150, kToolbar + i * 24, 220, 24};
    fill(g->renderer, &g->choices[i], chosen ? 60 : 44, chosen ? 80 : 44, chosen ? 110 : 52, 255);
    drawText(g, g->font, g->choiceIds[i], kWhite, g->choices[i].x + 8, g->choices[i].y + 4, 0, 204);
  }
}

static void drawStatus(Gallery* g) {
  const SDL_Rect bar = {0, g->height - kStatus, g->width, kStatus};
  char line[160];
  fill(g->renderer, &bar, 28, 28, 34, 255);
  if (g->toast[0] != '\0' && gallery_now() < g->toastUntil) {
    drawText(g, g->font, g->toast, kRefusal, 8, bar.y + 5, 0, g->width - 16);
    return;
  }
  g->toast[0] = '\0';
  snprintf(line, sizeof line,
           "%d in the meeting  |  M mic  V camera  S speakers  D share  Q leave  |  wheel on a "
           "tile: its volume",
           g->tileCount);
  drawText(g, g->font, line, kGrey, 8, bar.y + 5, 0, g->width - 16);
}

void gallery_draw(Gallery* g) {
  int i;
  SDL_GetRendererOutputSize(g->renderer, &g->width, &g->height);
  layout(g);
  SDL_SetRenderDrawColor(g->renderer, 18, 18, 22, 255);
  SDL_RenderClear(g->renderer);
  drawToolbar(g);
  if (g->screenStream >= 0) drawScreen(g);
  for (i = 0; i < g->tileCount; ++i) drawTile(g, &g->tiles[i]);
  drawStatus(g);
  if (g->picker >= 0) drawPicker(g);
}

void gallery_report(const Gallery* g, const char* path) {
  int i;
  printf("screenshot %s: %dx%d, %d tiles, screen %s\n", path, g->width, g->height, g->tileCount,
         g->screenStream >= 0 ? "shared" : "none");
  for (i = 0; i < g->tileCount; ++i) {
    const GalleryTile* t = &g->tiles[i];
    const GalleryPerson* p = &g->people[t->person];
    printf("tile %d picture %d %d %d %d %s self %d muted %d amplitude %d name %s\n", i,
           t->picture.x, t->picture.y, t->picture.w, t->picture.h,
           t->stream >= 0 && g->streams[t->stream].textureWidth > 0 ? "video" : "name", p->local,
           p->local ? !g->on[GALLERY_MIC] : p->muted,
           p->local ? (g->on[GALLERY_MIC] ? g->inputMeter : 0) : p->amplitude,
           p->local ? g->selfName : p->name);
  }
  if (g->screenStream >= 0) {
    const SDL_Rect* r = &g->screenRect;
    printf("screen picture %d %d %d %d owner %s\n", r->x, r->y, r->w, r->h,
           g->streams[g->screenStream].owner);
  }
  fflush(stdout);
}
