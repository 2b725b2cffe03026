/* The --snapshot mosaic: every stream's last frame scaled into one tile of a grid, encoded with
 * libpng. */
#include <errno.h>
#include <png.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo_frame.h"

void demo_image_free(DemoImage* image) {
  free(image->pixels);
  image->pixels = NULL;
  image->width = image->height = 0;
}

enum { kTileWidth = 320, kTileHeight = 180, kGap = 4 };

static void drawTile(unsigned char* canvas, int canvasWidth, int x0, int y0,
                     const DemoImage* image) {
  int x, y;
  for (y = 0; y < kTileHeight; ++y) {
    for (x = 0; x < kTileWidth; ++x) {
      /* Nearest-neighbour scaling keeps the tool small; the mosaic is a preview. */
      const int sx = x * image->width / kTileWidth;
      const int sy = y * image->height / kTileHeight;
      const unsigned char* from = image->pixels + ((size_t)sy * image->width + sx) * 3;
      unsigned char* to = canvas + ((size_t)(y0 + y) * canvasWidth + (x0 + x)) * 3;
      memcpy(to, from, 3);
    }
  }
}

/* Encodes rows as an 8-bit RGB PNG into file. Returns 0 or -1. */
static int encode(FILE* file, int width, int height, png_bytep* rows) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
  png_infop info = png != NULL ? png_create_info_struct(png) : NULL;
  if (info == NULL) {
    png_destroy_write_struct(&png, NULL);
    return -1;
  }
  if (setjmp(png_jmpbuf(png)) != 0) {
    png_destroy_write_struct(&png, &info);
    return -1;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, (png_uint_32)width, (png_uint_32)height, 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, NULL);
  png_destroy_write_struct(&png, &info);
  return 0;
}

int demo_write_mosaic(const char* path, const DemoImage* const* images, int count) {
  int columns = 1, rows, i, width, height, status;
  unsigned char* canvas;

  while (columns * columns < count) ++columns;
  rows = count == 0 ? 1 : (count + columns - 1) / columns;
  width = columns * (kTileWidth + kGap) + kGap;
  height = rows * (kTileHeight + kGap) + kGap;
  canvas = calloc((size_t)width * height, 3);
  if (canvas == NULL) {
    errno = ENOMEM;
    return -1;
  }
  for (i = 0; i < count; ++i) {
    drawTile(canvas, width, kGap + (i % columns) * (kTileWidth + kGap),
             kGap + (i / columns) * (kTileHeight + kGap), images[i]);
  }
  status = demo_write_png(path, width, height, canvas);
  free(canvas);
  return status;
}

int demo_write_png(const char* path, int width, int height, const unsigned char* pixels) {
  png_bytep* rows = malloc(sizeof(png_bytep) * (size_t)height);
  int i, status = -1;
  FILE* file;
  if (rows == NULL) {
    errno = ENOMEM;
    return -1;
  }
  for (i = 0; i < height; ++i) rows[i] = (png_bytep)(pixels + (size_t)i * width * 3);
  file = fopen(path, "wb");
  if (file != NULL) {
    status = encode(file, width, height, rows);
    if (status != 0) errno = EIO;
    if (fclose(file) != 0) status = -1;
  }
  free(rows);
  return status;
}
