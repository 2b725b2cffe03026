// The moving test camera: its code survives VP8 at a camera's bitrate and names the publisher,
// its counter and clock move with each picture, and it switches in place with the bars and off.
#include "test_camera.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "devices.h"
#include "media.h"

namespace {

uint32_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);
}

TEST(TestCamera, CodeReadsBackAtEverySizeAndRefusesAPictureWithoutOne) {
  for (const auto& size : {std::pair<int, int>{640, 480}, {320, 240}, {1280, 720}}) {
    const int w = size.first, h = size.second;
    std::vector<uint8_t> y(w * h), u((w / 2) * (h / 2)), v((w / 2) * (h / 2));
    ktopen::DrawTestCamera(y.data(), w, u.data(), v.data(), w / 2, w, h, 123456789u, 0xfedcba98u,
                           ktopen::PictureIdentity("publisher-7"));
    uint32_t frame = 0, ms = 0, who = 0;
    ASSERT_TRUE(ktopen::ReadTestCameraCode(y.data(), w, w, h, &frame, &ms, &who)) << w;
    EXPECT_EQ(frame, 123456789u);
    EXPECT_EQ(ms, 0xfedcba98u);
    EXPECT_EQ(who, ktopen::PictureIdentity("publisher-7"));
    EXPECT_NE(who, ktopen::PictureIdentity("publisher-8"));
    // One flipped block breaks its row's count of ones.
    const int block_w = w / 40, block_h = h / 30;
    uint8_t* bit = &y[(h - block_h / 2) * w + 5 * block_w + block_w / 2];
    *bit = *bit >= 128 ? 16 : 235;
    EXPECT_FALSE(ktopen::ReadTestCameraCode(y.data(), w, w, h, &frame, &ms, &who));
  }
  std::vector<uint8_t> grey(640 * 480, 128);
  uint32_t a, b, c;
  EXPECT_FALSE(ktopen::ReadTestCameraCode(grey.data(), 640, 640, 480, &a, &b, &c));
}

// The next decoded picture's code, waiting at most a few seconds.
bool NextCode(GstElement* sink, uint32_t* frame, uint32_t* ms, uint32_t* who) {
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 5 * GST_SECOND);
  if (!sample) return false;
  GstVideoInfo info;
  GstMapInfo map;
  bool ok = false;
  if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
      gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ)) {
    ok = ktopen::ReadTestCameraCode(map.data, GST_VIDEO_INFO_PLANE_STRIDE(&info, 0),
                                    GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                    frame, ms, who);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
  gst_sample_unref(sample);
  return ok;
}

TEST(TestCamera, CodeSurvivesVp8AndCountsPicturesAfterSwitchingInPlace) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  ktopen::SetPictureIdentity("publisher-7");
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* camera = ktopen::CreateDeviceElement(ktopen::Device::kCamera, "test-pattern");
  ASSERT_NE(camera, nullptr);
  GError* problem = nullptr;
  GstElement* chain = gst_parse_bin_from_description(
      "capsfilter caps=video/x-raw,format=I420,width=640,height=480,framerate=30/1 ! "
      "vp8enc deadline=1 threads=1 cpu-used=16 target-bitrate=300000 ! vp8dec ! "
      "appsink name=frames max-buffers=4 drop=true sync=false",
      TRUE, &problem);
  ASSERT_NE(chain, nullptr) << (problem ? problem->message : "");
  gst_bin_add_many(GST_BIN(pipeline), camera, chain, nullptr);
  ASSERT_TRUE(gst_element_link(camera, chain));
  GstElement* sink = gst_bin_get_by_name(GST_BIN(chain), "frames");
  ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

  uint32_t frame = 0, ms = 0, who = 0;
  EXPECT_FALSE(NextCode(sink, &frame, &ms, &who));  // the bars carry no code
  ktopen::SwitchVirtualCamera(camera, "test-camera");
  bool coded = false;
  for (int i = 0; i < 60 && !coded; ++i) coded = NextCode(sink, &frame, &ms, &who);
  ASSERT_TRUE(coded);
  EXPECT_EQ(who, ktopen::PictureIdentity("publisher-7"));
  const uint32_t first = frame;
  const int32_t age = static_cast<int32_t>(NowMs() - ms);
  EXPECT_GE(age, 0);
  EXPECT_LT(age, 10000);
  int later = 0;
  for (int i = 0; i < 30; ++i) later += NextCode(sink, &frame, &ms, &who) && frame > first;
  EXPECT_GT(later, 20);  // most pictures decode with their code after lossy compression

  ktopen::SwitchVirtualCamera(camera, "");  // off: black, no code
  bool black = false;
  for (int i = 0; i < 60 && !black; ++i) black = !NextCode(sink, &frame, &ms, &who);
  EXPECT_TRUE(black);

  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
}

}  // namespace
