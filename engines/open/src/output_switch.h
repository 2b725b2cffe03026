// Moving a playing stream to another sink (a speaker switched during a meeting).
#ifndef KTOPEN_OUTPUT_SWITCH_H
#define KTOPEN_OUTPUT_SWITCH_H

#include <gst/gst.h>

namespace ktopen {

// Replaces `old_sink` (linked, in a bin) by `replacement` (a new sink, floating or not) between
// two buffers, so that nothing upstream stops and no buffer is lost; then shuts the old sink down
// and takes it out of the bin. Waits up to 2 s for the stream to reach a buffer boundary; false
// when it did not (the swap then happens later, when the stream moves) or linking failed.
// REQUIRES: not called on the stream's own thread.
bool SwapSink(GstElement* old_sink, GstElement* replacement);

}  // namespace ktopen

#endif  // KTOPEN_OUTPUT_SWITCH_H
