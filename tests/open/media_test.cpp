// The frame slot between a decoder and the host's polling, the virtual camera's switch, and the
// reading of webrtcbin's statistics. No peer connection is made.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "devices.h"
#include "media.h"

namespace {

using ktopen::FrameSlot;

bool Even(const ktengine_frame* frame) {
  return __atomic_load_n(&frame->sequence, __ATOMIC_ACQUIRE) % 2 == 0;
}

TEST(FrameSlot, TakeWritesEachWaitingFrameOnceInOrderWithoutRowPadding) {
  FrameSlot slot;
  ktengine_frame* frame = slot.Start("feed/video", KTENGINE_RGB888, 4, 2);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->magic, KTENGINE_FRAME_MAGIC);
  EXPECT_EQ(frame->format, static_cast<unsigned>(KTENGINE_RGB888));
  EXPECT_EQ(frame->width, 4);
  EXPECT_EQ(frame->height, 2);
  EXPECT_EQ(frame->bytes_per_pixel, 3);
  EXPECT_EQ(frame->stride, 12);
  EXPECT_GE(frame->capacity, 4u * 4 * 2);
  EXPECT_STREQ(frame->stream_id, "feed/video");
  EXPECT_TRUE(slot.rendering());
  EXPECT_EQ(slot.Take(), 0);  // nothing offered yet

  // More frames than places, with 4 bytes of padding per row, before the host polls: the newest
  // kPlaces wait and arrive one a poll, oldest first, rows packed; the first was skipped.
  std::vector<uint8_t> first(16 * 2, 0x11), filler(16 * 2), last(16 * 2, 0xee);
  for (int i = 0; i < 12; ++i) last[i] = static_cast<uint8_t>(i), last[16 + i] = 100 + i;
  slot.Offer(first.data(), 4, 2, 16);
  for (int k = 0; k < FrameSlot::kPlaces - 1; ++k) {
    std::fill(filler.begin(), filler.end(), static_cast<uint8_t>(0x20 + k));
    slot.Offer(filler.data(), 4, 2, 16);
  }
  slot.Offer(last.data(), 4, 2, 16);
  EXPECT_TRUE(Even(frame));
  for (int k = 0; k < FrameSlot::kPlaces - 1; ++k) {
    ASSERT_EQ(slot.Take(), 1);
    EXPECT_TRUE(Even(frame));
    EXPECT_EQ(frame->frame_number, static_cast<uint32_t>(k + 1));
    EXPECT_EQ(frame->data[0], 0x20 + k);
    EXPECT_EQ(frame->data[23], 0x20 + k);
  }
  ASSERT_EQ(slot.Take(), 1);
  EXPECT_EQ(frame->frame_number, static_cast<uint32_t>(FrameSlot::kPlaces));
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(frame->data[i], i);
    EXPECT_EQ(frame->data[12 + i], 100 + i);
  }
  EXPECT_EQ(slot.Take(), 0);  // no new frame since

  // A frame larger than the descriptor (square, of the larger side) is cut to it; a smaller one
  // shrinks the picture.
  std::vector<uint8_t> big(8 * 3 * 6, 7);
  slot.Offer(big.data(), 8, 6, 8 * 3);
  ASSERT_EQ(slot.Take(), 1);
  EXPECT_EQ(frame->width, 4);
  EXPECT_EQ(frame->height, 4);
  std::vector<uint8_t> small(3 * 3, 9);
  slot.Offer(small.data(), 3, 1, 9);
  ASSERT_EQ(slot.Take(), 1);
  EXPECT_EQ(frame->width, 3);
  EXPECT_EQ(frame->height, 1);
  EXPECT_EQ(frame->stride, 9);
  EXPECT_EQ(frame->frame_number, static_cast<uint32_t>(FrameSlot::kPlaces + 2));

  // Once stopped, offers are ignored.
  slot.Stop();
  EXPECT_FALSE(slot.rendering());
  slot.Offer(last.data(), 4, 2, 16);
  EXPECT_EQ(slot.Take(), 0);
}

TEST(FrameSlot, ABacklogIsCutOneFrameAtATimeTheSoonerTheLongerItIs) {
  FrameSlot slot;
  ktengine_frame* frame = slot.Start("feed/video", KTENGINE_RGB888, 1, 1);
  uint8_t next = 0;
  auto offer = [&] {
    const uint8_t pixel[3] = {next, next, next};
    slot.Offer(pixel, 1, 1, 3);
    ++next;
  };
  // A burst leaves the host two frames behind; from then on one frame comes per poll.
  offer();
  offer();
  offer();
  std::vector<int> shown;
  for (int poll = 0; poll < 2 * FrameSlot::kMaxBacklogTakes + 6; ++poll) {
    ASSERT_EQ(slot.Take(), 1);
    shown.push_back(frame->data[0]);
    offer();
  }
  // Frames come in order; one frame is skipped on the first poll after kMaxBacklogTakes / 2 polls
  // two behind, and one more on the first after kMaxBacklogTakes polls one behind (counted from
  // the poll after the first skip): then the host is level with the newest.
  std::vector<size_t> skipped_at;
  for (size_t i = 1; i < shown.size(); ++i) {
    ASSERT_GE(shown[i] - shown[i - 1], 1);
    for (int k = 1; k < shown[i] - shown[i - 1]; ++k) skipped_at.push_back(i);
  }
  const size_t half = FrameSlot::kMaxBacklogTakes / 2, whole = FrameSlot::kMaxBacklogTakes;
  ASSERT_EQ(skipped_at.size(), 2u);
  EXPECT_EQ(skipped_at[0], half);
  EXPECT_EQ(skipped_at[1], half + 1 + whole);
  EXPECT_EQ(shown.back(), next - 2);  // the newest was offered after the last poll
  EXPECT_EQ(slot.Take(), 1);
  EXPECT_EQ(slot.Take(), 0);
}

TEST(FrameSlot, FollowsTheSendersSizeAtTheSameAddressOnlyWhenRenderedAtItsSize) {
  FrameSlot slot;
  ktengine_pixel_format format = KTENGINE_RGB888;
  int width = 0, height = 0;
  EXPECT_FALSE(slot.Follow(640, 480, 480, 640, &width, &height, &format));  // not rendering
  ktengine_frame* frame = slot.Start("feed/video", KTENGINE_BGRA8888, 640, 480);
  EXPECT_FALSE(slot.Follow(320, 240, 480, 640, &width, &height, &format));  // a window of its own
  ASSERT_TRUE(slot.Follow(640, 480, 480, 640, &width, &height, &format));   // turned on its side
  EXPECT_EQ(width, 480);
  EXPECT_EQ(height, 640);
  EXPECT_EQ(format, KTENGINE_BGRA8888);
  EXPECT_EQ(frame->width, 480);
  EXPECT_EQ(frame->stride, 480 * 4);
  ASSERT_TRUE(slot.Follow(480, 640, 1280, 720, &width, &height, &format));  // scaled to fit
  EXPECT_EQ(width, 640);
  EXPECT_EQ(height, 360);
  EXPECT_EQ(frame->height, 360);
  EXPECT_EQ(frame->magic, KTENGINE_FRAME_MAGIC);
}

TEST(FrameSlot, DescriptorsAreReusedNeverFreed) {
  ktengine_frame* first = nullptr;
  {
    FrameSlot slot;
    first = slot.Start("a/video", KTENGINE_BGRA8888, 64, 48);
    EXPECT_EQ(first->stride, 64 * 4);
    // Restarting smaller keeps the descriptor; the counter starts again.
    EXPECT_EQ(slot.Start("a/video", KTENGINE_RGBA8888, 32, 24), first);
    EXPECT_EQ(first->frame_number, 0u);
    EXPECT_GE(first->max_width, 64);
    EXPECT_GE(first->max_height, 64);  // room for the picture turned on its side
  }
  // The slot is gone but its descriptor stays readable, and a later stream may take it over.
  EXPECT_EQ(first->magic, KTENGINE_FRAME_MAGIC);
  FrameSlot other;
  ktengine_frame* second = other.Start("b/video", KTENGINE_RGB888, 16, 16);
  EXPECT_EQ(second, first);
  EXPECT_STREQ(second->stream_id, "b/video");
  // A size beyond every pooled descriptor gets a new one; sizes are bounded.
  ktengine_frame* huge = other.Start("b/video", KTENGINE_RGB888, 100000, 2);
  EXPECT_NE(huge, first);
  EXPECT_EQ(huge->max_width, 4096);
}

// The luma of the next picture's top left corner, the sample's caps aside (-1: no picture).
int NextCornerLuma(GstElement* sink) {
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 5 * GST_SECOND);
  if (!sample) return -1;
  GstMapInfo map;
  int luma = -1;
  if (gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ)) {
    luma = map.data[0];
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
  gst_sample_unref(sample);
  return luma;
}

// Whether a picture with that corner comes within about two seconds: the pattern is drawn twice a
// second and repeated in between.
bool CornerBecomes(GstElement* sink, bool (*wanted)(int)) {
  for (int i = 0; i < 60; ++i) {
    const int luma = NextCornerLuma(sink);
    if (luma < 0) return false;
    if (wanted(luma)) return true;
  }
  return false;
}

bool White(int luma) { return luma > 200; }  // the bars' first bar shows in the corner
bool Black(int luma) { return luma == 16; }

TEST(VirtualCamera, SwitchesBetweenBarsAndBlackWhileRunning) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* camera = ktopen::CreateDeviceElement(ktopen::Device::kCamera, "test-pattern", true);
  ASSERT_NE(camera, nullptr);
  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  GstCaps* caps = gst_caps_from_string("video/x-raw,format=I420,width=64,height=48,framerate=30/1");
  g_object_set(sink, "caps", caps, "max-buffers", 2, "drop", TRUE, "sync", FALSE, nullptr);
  gst_caps_unref(caps);
  gst_bin_add_many(GST_BIN(pipeline), camera, sink, nullptr);
  ASSERT_TRUE(gst_element_link(camera, sink));
  ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

  EXPECT_EQ(NextCornerLuma(sink), 16);  // made off: black from the first picture
  // Switching many times while pictures are drawn must neither crash nor stick.
  for (int i = 0; i < 200; ++i) ktopen::SetTestPattern(camera, i % 2 == 0);
  ktopen::SetTestPattern(camera, true);
  EXPECT_TRUE(CornerBecomes(sink, White));
  ktopen::SetTestPattern(camera, false);
  EXPECT_TRUE(CornerBecomes(sink, Black));

  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
}

GstStructure* Entry(GstWebRTCStatsType type) {
  return gst_structure_new("entry", "type", GST_TYPE_WEBRTC_STATS_TYPE, type, nullptr);
}

TEST(PeerStats, SumsStreamsAndKeepsTheWorstFigures) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  GstStructure* audio_in = Entry(GST_WEBRTC_STATS_INBOUND_RTP);
  gst_structure_set(audio_in, "bytes-received", G_TYPE_UINT64, guint64{1000}, "packets-received",
                    G_TYPE_UINT64, guint64{50}, "packets-lost", G_TYPE_INT64, gint64{2}, "jitter",
                    G_TYPE_DOUBLE, 0.004, nullptr);
  GstStructure* video_in = Entry(GST_WEBRTC_STATS_INBOUND_RTP);
  gst_structure_set(video_in, "bytes-received", G_TYPE_UINT64, guint64{30000}, "packets-received",
                    G_TYPE_UINT64, guint64{40}, "packets-lost", G_TYPE_INT64, gint64{-1}, "jitter",
                    G_TYPE_DOUBLE, 0.002, nullptr);
  // Each stream's RTP source states its clock: 90 kHz for video.
  for (const auto& clock : {std::make_pair(audio_in, 48000), std::make_pair(video_in, 90000)}) {
    GstStructure* source = gst_structure_new("application/x-rtp-source-stats", "clock-rate",
                                             G_TYPE_INT, clock.second, nullptr);
    gst_structure_set(clock.first, "gst-rtpsource-stats", GST_TYPE_STRUCTURE, source, nullptr);
    gst_structure_free(source);
  }
  GstStructure* out = Entry(GST_WEBRTC_STATS_OUTBOUND_RTP);
  gst_structure_set(out, "bytes-sent", G_TYPE_UINT64, guint64{7000}, "ssrc", G_TYPE_UINT,
                    0x4b540002u, nullptr);  // the camera's
  GstStructure* out_audio = Entry(GST_WEBRTC_STATS_OUTBOUND_RTP);
  gst_structure_set(out_audio, "bytes-sent", G_TYPE_UINT64, guint64{500}, "ssrc", G_TYPE_UINT,
                    0x4b540001u, nullptr);
  GstStructure* remote_a = Entry(GST_WEBRTC_STATS_REMOTE_INBOUND_RTP);
  gst_structure_set(remote_a, "fraction-lost", G_TYPE_DOUBLE, 0.25, "round-trip-time",
                    G_TYPE_DOUBLE, 0.010, nullptr);
  GstStructure* remote_b = Entry(GST_WEBRTC_STATS_REMOTE_INBOUND_RTP);
  gst_structure_set(remote_b, "fraction-lost", G_TYPE_DOUBLE, 0.05, "round-trip-time",
                    G_TYPE_DOUBLE, 0.030, nullptr);
  GstStructure* transport = Entry(GST_WEBRTC_STATS_TRANSPORT);
  gst_structure_set(transport, "bytes-sent", G_TYPE_UINT64, guint64{999999}, nullptr);

  GstStructure* reply = gst_structure_new_empty("application/x-webrtc-stats");
  const std::pair<const char*, GstStructure*> entries[] = {
      {"in-a", audio_in}, {"in-v", video_in},       {"out", out},        {"ri-a", remote_a},
      {"ri-v", remote_b}, {"transport", transport}, {"out-a", out_audio}};
  for (const auto& entry : entries) {
    gst_structure_set(reply, entry.first, GST_TYPE_STRUCTURE, entry.second, nullptr);
    gst_structure_free(entry.second);
  }
  gst_structure_set(reply, "not-a-structure", G_TYPE_INT, 5, nullptr);

  const ktopen::PeerStats stats = ktopen::ParseStats(reply);
  gst_structure_free(reply);
  EXPECT_EQ(stats.bytes_received, 31000u);
  EXPECT_EQ(stats.packets_received, 90u);
  EXPECT_EQ(stats.packets_lost, 1);
  EXPECT_DOUBLE_EQ(stats.jitter_s, 0.004);
  EXPECT_EQ(stats.bytes_sent, 7500u);  // the transport's own count is not a stream's
  // Video told from audio by its RTP source's clock, or our camera's SSRC.
  EXPECT_EQ(stats.video_bytes_received, 30000u);
  EXPECT_EQ(stats.video_bytes_sent, 7000u);
  EXPECT_DOUBLE_EQ(stats.fraction_lost, 0.25);
  EXPECT_DOUBLE_EQ(stats.round_trip_s, 0.030);
}

}  // namespace
