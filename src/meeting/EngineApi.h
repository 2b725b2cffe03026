// The C functions of the audio engine (libktaudio-mac) and the video engine (libktvideo-mac).
// They are resolved by the dynamic linker from the engine libraries beside the product, so a
// same-named engine library (the simulated ones, or the maker's) supplies them.
//
// The declarations have one home, the engines' ABI header (engines/include/ktengine/ktengine.h),
// which every engine family is built from: the product and its engines cannot disagree about a
// signature.
#ifndef CONVOKE_MEETING_ENGINEAPI_H
#define CONVOKE_MEETING_ENGINEAPI_H

#include "ktengine/ktengine.h"

#endif  // CONVOKE_MEETING_ENGINEAPI_H
