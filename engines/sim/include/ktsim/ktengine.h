/*
 * ktsim/ktengine.h - the engines' C ABI under the name it was first installed with.
 *
 * The declarations live in <ktengine/ktengine.h>, the ABI's own header; this one only includes it,
 * so that hosts and tools written against the earlier name keep compiling.
 */
#ifndef KTSIM_KTENGINE_H
#define KTSIM_KTENGINE_H

#include "ktengine/ktengine.h"

#endif /* KTSIM_KTENGINE_H */
