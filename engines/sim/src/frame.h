// Frame descriptors (ktsim_frame) and the moving test pictures the engine writes into them.
#ifndef KTSIM_FRAME_H
#define KTSIM_FRAME_H

#include <cstdint>
#include <string>

#include "ktsim/ktsim.h"

namespace ktsim {

// What a stream shows. Plain value.
struct Picture {
  enum Kind { kCamera, kCameraOff, kScreen, kNetwork, kLocalCamera };
  Kind kind = kCamera;
  uint32_t seed = 0;           // places and shapes differ per participant
  uint8_t rgb[3] = {0, 0, 0};  // the participant's colour
  bool speaking = false;       // a green border
};

// Pixel format of a render command's colorspace text; false when the engine does not offer it.
bool FormatOf(const std::string& colorspace, ktsim_pixel_format* format);

// Descriptors are never freed: a host may hold a pixel_buffer address longer than its stream
// lives. Released descriptors are reused by later streams. Thread safety: all functions may be
// called from any thread; each descriptor has its own writer lock.
namespace frames {

// A descriptor able to hold width x height at 4 bytes per pixel (a released one when one fits).
ktsim_frame* Acquire(int width, int height);
void Release(ktsim_frame* frame);
// Whether `frame` is one of ours.
bool Owns(const ktsim_frame* frame);
// Whether a frame of that size fits the descriptor.
bool Fits(const ktsim_frame* frame, int width, int height);
// Sets the format and size for a stream (frame_number restarts at 0) and clears the picture.
void Prepare(ktsim_frame* frame, ktsim_pixel_format format, int width, int height,
             const std::string& stream_id);
// Writes picture number `index` of `picture` at the size and format last prepared.
void Write(ktsim_frame* frame, const Picture& picture, uint64_t index);
// ktsim_frame_copy.
size_t Copy(const ktsim_frame* frame, void* pixels, size_t size, ktsim_frame* info);

}  // namespace frames
}  // namespace ktsim

#endif  // KTSIM_FRAME_H
