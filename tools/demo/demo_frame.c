/* Reading the video engine's frame buffers. The engine's pixel-buffer handle is the address of a
 * frame descriptor (ktengine/frame.h, the same for the simulated and the open engines); the demo
 * copies the picture into its own RGB image during the videoFrameReady callback (when the frame is
 * whole). */
#include <stdlib.h>
#include <string.h>

#include "demo_frame.h"
#include "ktengine/frame.h"

int demo_image_copy_frame(DemoImage* image, const void* pixelBuffer) {
  const ktengine_frame* frame = (const ktengine_frame*)pixelBuffer;
  int x, y, width, height, stride, bpp, red, blue;
  if (frame == NULL || frame->magic != KTENGINE_FRAME_MAGIC) return -1;
  width = frame->width;
  height = frame->height;
  stride = frame->stride;
  bpp = frame->bytes_per_pixel;
  if (width <= 0 || height <= 0 || (bpp != 3 && bpp != 4) || stride < width * bpp ||
      (size_t)stride * (size_t)height > frame->capacity) {
    return -1;
  }
  if (image->width != width || image->height != height || image->pixels == NULL) {
    unsigned char* pixels = realloc(image->pixels, (size_t)width * height * 3);
    if (pixels == NULL) return -1;
    image->pixels = pixels;
    image->width = width;
    image->height = height;
  }
  /* The channel order is the frame's, chosen once: rows already in R, G, B order are copied whole.
   */
  red = frame->format == KTENGINE_BGRA8888 ? 2 : 0;
  blue = 2 - red;
  for (y = 0; y < height; ++y) {
    const unsigned char* row = frame->data + (size_t)y * stride;
    unsigned char* out = image->pixels + (size_t)y * width * 3;
    if (bpp == 3 && red == 0) {
      memcpy(out, row, (size_t)width * 3);
      continue;
    }
    for (x = 0; x < width; ++x, row += bpp, out += 3) {
      out[0] = row[red], out[1] = row[1], out[2] = row[blue];
    }
  }
  return 0;
}
