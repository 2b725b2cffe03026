/* See frame_code.h. Each block is judged by the luma of its centre pixel. */
#define _POSIX_C_SOURCE 200809L

#include "frame_code.h"

#include "demo_clock.h"
#include "ktengine/frame.h"

#define BLOCKS 40
#define BLOCK_ROWS_PER_PICTURE 30
#define CODE_ROWS 3
#define DATA_BITS 32
#define COUNT_BITS 6

static int ones(unsigned int value) {
  int n = 0;
  for (; value != 0; value &= value - 1) ++n;
  return n;
}

int frame_code_read(const void* pixelBuffer, FrameCode* code) {
  const ktengine_frame* f = (const ktengine_frame*)pixelBuffer;
  unsigned int values[CODE_ROWS];
  int blockW, blockH, top, r, b, red;
  if (f == NULL || f->magic != KTENGINE_FRAME_MAGIC || f->width < BLOCKS ||
      f->height < BLOCK_ROWS_PER_PICTURE || (f->bytes_per_pixel != 3 && f->bytes_per_pixel != 4)) {
    return -1;
  }
  blockW = f->width / BLOCKS;
  blockH = f->height / BLOCK_ROWS_PER_PICTURE;
  top = f->height - CODE_ROWS * blockH;
  red = f->format == KTENGINE_BGRA8888 ? 2 : 0;
  for (r = 0; r < CODE_ROWS; ++r) {
    const unsigned char* row = f->data + (size_t)(top + r * blockH + blockH / 2) * f->stride;
    unsigned int bits[2 + DATA_BITS + COUNT_BITS], value = 0, count = 0;
    for (b = 0; b < 2 + DATA_BITS + COUNT_BITS; ++b) {
      const unsigned char* p = row + (size_t)(b * blockW + blockW / 2) * f->bytes_per_pixel;
      const int luma = (77 * p[red] + 150 * p[1] + 29 * p[2 - red]) >> 8;
      bits[b] = luma >= 128;
    }
    if (!bits[0] || bits[1]) return -1;
    for (b = 0; b < DATA_BITS; ++b) value = (value << 1) | bits[2 + b];
    for (b = 0; b < COUNT_BITS; ++b) count = (count << 1) | bits[2 + DATA_BITS + b];
    if ((int)count != ones(value)) return -1;
    values[r] = value;
  }
  code->frame = values[0];
  code->captureMs = values[1];
  code->identity = values[2];
  return 0;
}

unsigned int frame_code_identity(const char* publisherId) {
  unsigned int hash = 2166136261u;
  for (; *publisherId != '\0'; ++publisherId) {
    hash ^= (unsigned char)*publisherId;
    hash *= 16777619u;
  }
  return hash;
}

unsigned int frame_code_now_ms(void) { return (unsigned int)demo_wall_ms(); }
