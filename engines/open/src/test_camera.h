// The moving virtual camera ("test-camera"): a picture that costs about what a real camera's does
// to encode (drifting waves, a bouncing square and sensor-like noise on every pixel), drawn in the
// publisher's own colour, with a machine-readable code along its bottom edge that the receiving
// side reads back from the decoded frame:
//
//   three rows of 40 blocks, each block width/40 wide and height/30 high, luma black (16) or white
//   (235) with neutral chroma; every row starts with a white then a black block, then 32 data bits
//   (most significant first, white = 1), then 6 bits holding how many of the 32 are 1.
//   Row 1 (the third from the bottom): the frame counter since the camera started.
//   Row 2: the capture time, CLOCK_REALTIME in milliseconds, modulo 2^32.
//   Row 3 (the bottom one): the publisher's identity, FNV-1a (32 bits) of its publisher id.
//
// Drawing happens on the camera's streaming thread, once per frame.
#ifndef KTOPEN_TEST_CAMERA_H
#define KTOPEN_TEST_CAMERA_H

#include <cstdint>
#include <string>

namespace ktopen {

// FNV-1a, 32 bits: the identity the picture carries for a publisher id.
uint32_t PictureIdentity(const std::string& publisher_id);

// The identity drawn by every moving camera of this process from now on (one publisher per
// process); any thread.
void SetPictureIdentity(const std::string& publisher_id);
uint32_t CurrentPictureIdentity();

// Draws frame number `frame` captured at `capture_ms` into an I420 picture.
void DrawTestCamera(uint8_t* y, int y_stride, uint8_t* u, uint8_t* v, int uv_stride, int width,
                    int height, uint32_t frame, uint32_t capture_ms, uint32_t identity);

// Reads the code back from an I420 luma plane (used by the tests); false when a row does not
// check out.
bool ReadTestCameraCode(const uint8_t* y, int y_stride, int width, int height, uint32_t* frame,
                        uint32_t* capture_ms, uint32_t* identity);

}  // namespace ktopen

#endif  // KTOPEN_TEST_CAMERA_H
