/*
 * ktengine/frame.h - the frame descriptor behind a video stream's pixel buffer.
 *
 * When a video engine starts rendering a stream it sends video_stream_buffer_ready; the event's
 * pixel_buffer is the address of a ktengine_frame, as an unsigned decimal number, and the product
 * hands that address to the host's videoFrameReady callback. The simulated engines (engines/sim)
 * and the open engines (engines/open) both describe their frames this way, so a host's drawing
 * code works with either. The engine writes each new frame into the descriptor during the
 * VideoFrameReady call that reports it, on the caller's thread, and never while another
 * VideoFrameReady of the same stream runs.
 *
 * Rules for readers
 *  - A descriptor and its pixels are never freed nor moved: the address stays readable until the
 *    process ends, even after its stream was removed (a later stream may reuse the descriptor).
 *  - width <= max_width, height <= max_height and stride <= 4 * max_width hold at every moment,
 *    and capacity >= 4 * max_width * max_height, so any width, height and stride read from the
 *    descriptor, even while it is rewritten, stay inside `data`: a careless reader may see a
 *    mixed picture but cannot read out of bounds.
 *  - Reading in the host's videoFrameReady callback, which the product calls on the thread that
 *    polled VideoFrameReady right after the frame was written, always sees a whole frame.
 *  - Elsewhere, check `sequence`: read it (an acquire load, e.g.
 *    __atomic_load_n(&frame->sequence, __ATOMIC_ACQUIRE)); an odd value means a frame is being
 *    written; copy what you need; read it again; equal values mean the copy is whole.
 */
#ifndef KTENGINE_FRAME_H
#define KTENGINE_FRAME_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KTENGINE_FRAME_MAGIC 0x4b544652u /* "KTFR" */

typedef enum ktengine_pixel_format {
  KTENGINE_RGB888 = 0, /* 3 bytes per pixel: R, G, B ("RGB888") */
  KTENGINE_BGRA8888 =
      1, /* 4 bytes per pixel: B, G, R, A ("BGRA8888", "ARGB8888" on little endian) */
  KTENGINE_RGBA8888 = 2 /* 4 bytes per pixel: R, G, B, A ("RGBA8888") */
} ktengine_pixel_format;

typedef struct ktengine_frame {
  unsigned int magic;          /* KTENGINE_FRAME_MAGIC */
  unsigned int format;         /* a ktengine_pixel_format, from the render command's colorspace */
  int width;                   /* pixels */
  int height;                  /* rows */
  int stride;                  /* bytes from one row to the next */
  int bytes_per_pixel;         /* 3 or 4 */
  int max_width;               /* fixed for the descriptor's life */
  int max_height;              /* fixed for the descriptor's life */
  unsigned char* data;         /* fixed for the descriptor's life */
  size_t capacity;             /* bytes at data; fixed */
  unsigned long long sequence; /* odd while a frame is being written */
  unsigned long long frame_number; /* frames written since the stream's rendering started */
  char stream_id[48];              /* the stream the last frame belongs to */
} ktengine_frame;

#ifdef __cplusplus
}
#endif

#endif /* KTENGINE_FRAME_H */
