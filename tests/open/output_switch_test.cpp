// A playing sound moved to another sink (a speaker switched during a meeting): the next buffer
// after the switch goes to the new sink and none is lost. The gap is printed as a figure.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "media.h"
#include "output_switch.h"

namespace {

struct Seen {
  std::mutex mutex;
  std::vector<GstClockTime> pts;
  std::chrono::steady_clock::time_point first, last;
};

void OnHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer data) {
  Seen& seen = *static_cast<Seen*>(data);
  std::lock_guard<std::mutex> lock(seen.mutex);
  const auto now = std::chrono::steady_clock::now();
  if (seen.pts.empty()) seen.first = now;
  seen.last = now;
  seen.pts.push_back(GST_BUFFER_PTS(buffer));
}

GstElement* CountingSink(Seen* seen) {
  GstElement* sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", TRUE, "signal-handoffs", TRUE, nullptr);
  g_signal_connect(sink, "handoff", G_CALLBACK(OnHandoff), seen);
  return sink;
}

// Waits (up to 10 s) until `seen` has at least n buffers.
bool AtLeast(Seen* seen, size_t n) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    {
      std::lock_guard<std::mutex> lock(seen->mutex);
      if (seen->pts.size() >= n) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

TEST(OutputSwitch, TheNextBufferGoesToTheNewSinkAndNoneIsLost) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  GstElement* pipeline = gst_parse_launch(
      "audiotestsrc is-live=true samplesperbuffer=960 ! audio/x-raw,rate=48000,channels=1 ! "
      "volume name=gain",
      nullptr);
  ASSERT_NE(pipeline, nullptr);
  Seen before, after;
  GstElement* old_sink = CountingSink(&before);
  gst_bin_add(GST_BIN(pipeline), old_sink);
  GstElement* gain = gst_bin_get_by_name(GST_BIN(pipeline), "gain");
  ASSERT_TRUE(gst_element_link(gain, old_sink));
  gst_object_unref(gain);
  ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(AtLeast(&before, 5));

  gst_object_ref(old_sink);
  EXPECT_TRUE(ktopen::SwapSink(old_sink, CountingSink(&after)));
  EXPECT_EQ(GST_OBJECT_PARENT(old_sink), nullptr);  // taken out of the pipeline
  gst_object_unref(old_sink);
  ASSERT_TRUE(AtLeast(&after, 5));
  gst_element_set_state(pipeline, GST_STATE_NULL);

  std::lock_guard<std::mutex> a(before.mutex), b(after.mutex);
  const GstClockTime last_before = before.pts.back(), first_after = after.pts.front();
  EXPECT_EQ(first_after, last_before + 20 * GST_MSECOND);  // the very next buffer
  const double gap_ms =
      std::chrono::duration<double, std::milli>(after.first - before.last).count();
  std::printf(
      "speaker switch: %.1f ms between the last buffer on the old sink and the first on "
      "the new (20 ms buffers)\n",
      gap_ms);
  gst_object_unref(pipeline);
}

}  // namespace
