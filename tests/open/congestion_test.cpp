// The camera's bitrate controller: it backs off under heavy loss and a growing queue, holds under
// moderate random loss, and returns to the cap within a few reports once the link is clean; the
// camera's encoder (as the engines configure it) follows a new target while it runs.
#include "congestion.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "devices.h"
#include "media.h"

namespace {

using ktopen::BitrateController;

TEST(BitrateController, FollowsTheLinkWithinItsBounds) {
  BitrateController c(80000, 500000, 500000);
  EXPECT_EQ(c.Update(0.0, 0.002), 500000);  // never above the cap
  // A 600 kbit/s link shared by two senders: a third of the packets dropped cuts the rate.
  const int cut = c.Update(0.33, 0.002);
  EXPECT_LT(cut, 450000);
  int rate = cut;
  for (int i = 0; i < 20; ++i) rate = c.Update(0.4, 0.002);
  EXPECT_EQ(rate, 80000);  // never below the floor
  // 5% random loss holds the rate: it is not congestion.
  EXPECT_EQ(c.Update(0.05, 0.002), 80000);
  // A queue building (round trip well above the lowest seen) cuts it too, once it grew.
  for (int i = 0; i < 5; ++i) rate = c.Update(0.0, 0.002);
  EXPECT_GT(rate, 80000);
  EXPECT_LT(c.Update(0.0, 0.300), rate);
  // A clean link comes back to the cap within ten reports from the floor.
  BitrateController low(80000, 500000, 80000);
  int reports = 0;
  while (low.target() < 500000 && reports < 30) low.Update(0.0, 0.002), ++reports;
  EXPECT_LE(reports, 14);
}

TEST(BitrateController, ManyRetransmissionRequestsCutAndTheFloodedRateIsPassedSlowly) {
  BitrateController c(80000, 500000, 250000);
  // The server asking again for a tenth of the packets is random loss; for 60% a flood.
  EXPECT_EQ(c.OnRequests(0.1), 250000);
  EXPECT_EQ(c.OnRequests(BitrateController::kHeavyRequests), 250000);
  const int cut = c.OnRequests(0.6);
  EXPECT_EQ(cut, 90000);  // what got through, less a tenth
  // Back up by 20% a report to 85% of the flooded rate, by 5% to 115% of it, then by 20% again.
  std::vector<int> rates{cut};
  while (rates.back() < 500000 && rates.size() < 60) rates.push_back(c.Update(0.0, 0.002));
  ASSERT_EQ(rates.back(), 500000);
  int slow = 0;
  for (size_t i = 1; i + 1 < rates.size(); ++i) {
    const double growth = static_cast<double>(rates[i]) / rates[i - 1];
    const bool near = rates[i - 1] >= 0.85 * 250000 && rates[i - 1] <= 1.15 * 250000;
    EXPECT_EQ(growth < 1.07, near) << i;
    slow += near;
  }
  EXPECT_GE(slow, 5);
}

}  // namespace

namespace {

// Bytes of encoded video in `frames` pictures.
size_t EncodedBytes(GstElement* sink, int frames) {
  size_t bytes = 0;
  for (int i = 0; i < frames; ++i) {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 5 * GST_SECOND);
    if (!sample) break;
    bytes += gst_buffer_get_size(gst_sample_get_buffer(sample));
    gst_sample_unref(sample);
  }
  return bytes;
}

TEST(BitrateController, TheCameraEncoderFollowsANewTargetWhileRunning) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* camera = ktopen::CreateDeviceElement(ktopen::Device::kCamera, "test-camera");
  GError* problem = nullptr;
  const std::string description =
      std::string(
          "capsfilter caps=video/x-raw,format=I420,width=640,height=480,framerate=30/1 ! ") +
      ktopen::kCameraEncoder + " ! appsink name=out max-buffers=1000 sync=false";
  GstElement* chain = gst_parse_bin_from_description(description.c_str(), TRUE, &problem);
  ASSERT_NE(chain, nullptr);
  gst_bin_add_many(GST_BIN(pipeline), camera, chain, nullptr);
  ASSERT_TRUE(gst_element_link(camera, chain));
  GstElement* sink = gst_bin_get_by_name(GST_BIN(chain), "out");
  GstElement* encoder = gst_bin_get_by_name(GST_BIN(chain), "encoder");
  ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  EncodedBytes(sink, 30);  // the first key frame and the rate control settling
  const size_t full = EncodedBytes(sink, 60);
  g_object_set(encoder, "target-bitrate", 100000, nullptr);
  EncodedBytes(sink, 30);
  const size_t cut = EncodedBytes(sink, 60);
  EXPECT_LT(cut * 2, full);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(encoder);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
}

}  // namespace
