/* Frames for convoke-demo: copies of the engine's frame buffers and the PNG mosaic. */
#ifndef CONVOKE_DEMO_FRAME_H
#define CONVOKE_DEMO_FRAME_H

/* An 8-bit RGB image owned by the demo. */
typedef struct {
  int width;
  int height;
  unsigned char* pixels; /* width * height * 3 bytes, or NULL */
} DemoImage;

/* Copies the frame behind an engine pixel-buffer handle into image (resizing it as needed).
 * Returns 0 on success, -1 when the handle holds no frame the demo understands. */
int demo_image_copy_frame(DemoImage* image, const void* pixelBuffer);
void demo_image_free(DemoImage* image);

/* Writes the images side by side in a grid as one PNG file. Returns 0, or -1 with errno set. */
int demo_write_mosaic(const char* path, const DemoImage* const* images, int count);

/* Writes width x height 8-bit RGB pixels (rows packed) as a PNG file. Returns 0, or -1 with errno
 * set. */
int demo_write_png(const char* path, int width, int height, const unsigned char* pixels);

#endif /* CONVOKE_DEMO_FRAME_H */
