/* Reading the moving test camera's code (the open engines' "test-camera") back from a decoded
 * frame: three rows of 40 black or white blocks along the bottom edge, each block width/40 wide
 * and height/30 high; every row is a white block, a black block, 32 data bits (most significant
 * first, white = 1) and 6 bits counting the ones among the 32. From the top: the frame counter,
 * the capture time (CLOCK_REALTIME in milliseconds, modulo 2^32), and the publisher's identity
 * (FNV-1a, 32 bits, of its publisher id). */
#ifndef CONVOKE_DEMO_FRAME_CODE_H
#define CONVOKE_DEMO_FRAME_CODE_H

typedef struct {
  unsigned int frame;     /* the sender's frame counter */
  unsigned int captureMs; /* the sender's wall clock at capture, milliseconds modulo 2^32 */
  unsigned int identity;  /* frame_code_identity() of the sender's publisher id */
} FrameCode;

/* Reads the code from the frame behind an engine pixel-buffer handle (a ktengine_frame). Returns 0,
 * or -1 when the picture holds no code that checks out. */
int frame_code_read(const void* pixelBuffer, FrameCode* code);

/* FNV-1a (32 bits) of a publisher id: what the test camera draws as identity. */
unsigned int frame_code_identity(const char* publisherId);

/* The wall clock in milliseconds modulo 2^32, as the code carries it. */
unsigned int frame_code_now_ms(void);

#endif /* CONVOKE_DEMO_FRAME_CODE_H */
