// Speakers switched during a meeting: each receiving peer's audio goes to a new sink in place of
// the old one, without restarting anything upstream. The swap happens while the pad that feeds
// the sink is idle (between two buffers), so no decoded sound is dropped: the next buffer goes to
// the new sink, and the gap is only the time the new device takes to start. The old sink is shut
// down afterwards, on the calling thread, never on the streaming thread.
#include <condition_variable>
#include <mutex>

#include "media.h"
#include "output_switch.h"

namespace ktopen {

namespace {

struct Swap {
  GstElement* bin = nullptr;
  GstElement* old_sink = nullptr;
  GstElement* replacement = nullptr;
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false, linked = false;
};

GstPadProbeReturn SwapWhileIdle(GstPad* pad, GstPadProbeInfo*, gpointer data) {
  Swap& swap = *static_cast<Swap*>(data);
  GstPad* old_pad = gst_element_get_static_pad(swap.old_sink, "sink");
  gst_pad_unlink(pad, old_pad);
  gst_object_unref(old_pad);
  gst_bin_add(GST_BIN(swap.bin), swap.replacement);
  GstPad* new_pad = gst_element_get_static_pad(swap.replacement, "sink");
  const bool linked = gst_pad_link(pad, new_pad) == GST_PAD_LINK_OK;
  gst_object_unref(new_pad);
  gst_element_sync_state_with_parent(swap.replacement);
  std::lock_guard<std::mutex> lock(swap.mutex);
  swap.done = true;
  swap.linked = linked;
  swap.changed.notify_all();
  return GST_PAD_PROBE_REMOVE;
}

}  // namespace

bool SwapSink(GstElement* old_sink, GstElement* replacement) {
  if (!old_sink || !replacement) return false;
  gst_object_ref_sink(replacement);
  GstElement* bin = GST_ELEMENT(gst_object_get_parent(GST_OBJECT(old_sink)));
  GstPad* sink_pad = gst_element_get_static_pad(old_sink, "sink");
  GstPad* feed = sink_pad ? gst_pad_get_peer(sink_pad) : nullptr;
  if (sink_pad) gst_object_unref(sink_pad);
  if (!bin || !feed) {
    if (bin) gst_object_unref(bin);
    if (feed) gst_object_unref(feed);
    gst_object_unref(replacement);
    return false;
  }
  auto* swap = new Swap();
  swap->bin = bin;
  swap->old_sink = old_sink;
  swap->replacement = replacement;
  // Called at once when the pad is idle, otherwise right after the buffer being pushed.
  gst_pad_add_probe(feed, GST_PAD_PROBE_TYPE_IDLE, SwapWhileIdle, swap, nullptr);
  bool done, linked;
  {
    std::unique_lock<std::mutex> lock(swap->mutex);
    done = swap->changed.wait_for(lock, std::chrono::seconds(2), [swap] { return swap->done; });
    linked = swap->linked;
  }
  gst_object_unref(feed);
  if (!done) {
    // The stream is stuck inside the old sink; the probe still owns the swap and will run when
    // the stream moves again (it is leaked rather than freed under the probe's feet).
    return false;
  }
  gst_element_set_state(old_sink, GST_STATE_NULL);
  gst_bin_remove(GST_BIN(bin), old_sink);
  gst_object_unref(bin);
  gst_object_unref(replacement);  // the bin holds it now
  delete swap;
  return linked;
}

void Subscriber::SetSpeaker(const std::string& speaker) {
  GstElement* old_sink = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (speaker == speaker_) return;
    speaker_ = speaker;  // a later audio stream starts on it
    if (sink_) old_sink = GST_ELEMENT(gst_object_ref(sink_));
  }
  if (!old_sink || stopped_) {
    if (old_sink) gst_object_unref(old_sink);
    return;
  }
  GstElement* replacement =
      CreateDeviceElement(Device::kSpeaker, speaker.empty() ? std::string(kNullSpeaker) : speaker);
  if (!replacement) replacement = CreateDeviceElement(Device::kSpeaker, kNullSpeaker);
  gst_object_ref(replacement);  // floating until the swap adds it; kept as sink_
  const bool swapped = SwapSink(old_sink, replacement);
  gst_object_unref(old_sink);
  std::lock_guard<std::mutex> lock(mutex_);
  if (swapped) {
    if (sink_) gst_object_unref(sink_);
    sink_ = replacement;
  } else {
    gst_object_unref(replacement);
  }
}

}  // namespace ktopen
