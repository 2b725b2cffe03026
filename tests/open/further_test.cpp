// Further video streams without a meeting server: the screens offered for sharing (the virtual one
// always, with the texts that mark a screen share) and their pictures, and network video sources,
// read before they are accepted and refused with a reason when they hold no readable video.
#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "media.h"
#include "network_video.h"
#include "screens.h"

namespace {

using namespace ktopen;

// The first `count` pictures of a source element (bounded: fewer when none arrive for 10 s).
std::vector<std::vector<uint8_t>> Pictures(GstElement* source, int count) {
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  g_object_set(sink, "sync", FALSE, "max-buffers", 4, nullptr);
  gst_bin_add_many(GST_BIN(pipeline), source, sink, nullptr);
  std::vector<std::vector<uint8_t>> pictures;
  if (gst_element_link(source, sink) &&
      gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) {
    for (int i = 0; i < count; ++i) {
      GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND);
      if (!sample) break;
      GstMapInfo map;
      GstBuffer* buffer = gst_sample_get_buffer(sample);
      if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        pictures.emplace_back(map.data, map.data + map.size);
        gst_buffer_unmap(buffer, &map);
      }
      gst_sample_unref(sample);
    }
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return pictures;
}

// Runs a gst-launch description that ends by itself; true when it reached its end.
bool Make(const std::string& description) {
  GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
  if (!pipeline) return false;
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* end = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = end && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS;
  if (end) gst_message_unref(end);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return ok;
}

TEST(Screens, TheVirtualScreenIsAlwaysListedAsAScreenShareAndItsPictureMoves) {
  ASSERT_TRUE(InitMedia(nullptr));
  const std::vector<Screen> screens = ListScreens();
  ASSERT_FALSE(screens.empty());
  const Screen& virtual_screen = screens.back();
  EXPECT_EQ(virtual_screen.id, "virtual-screen");
  for (const Screen& s : screens) {
    EXPECT_EQ(s.name.rfind("Screen Capture - ", 0), 0u) << s.name;  // how a host tells a screen
    EXPECT_GT(s.width, 0);
  }
  EXPECT_STREQ(kScreenProfile, "VP8 4K (10FPS)");
  Screen found;
  EXPECT_TRUE(FindScreen("virtual-screen", &found));
  EXPECT_FALSE(FindScreen("test-pattern", &found));

  // Sent at the screen's shape, at most 1920x1080, even sides.
  const struct {
    int w, h, sent_w, sent_h;
  } sizes[] = {{3840, 2160, 1920, 1080},
               {1280, 1024, 1280, 1024},
               {2560, 1600, 1728, 1080},
               {1365, 767, 1364, 766},
               {0, 0, 1280, 720}};
  for (const auto& s : sizes) {
    int w = 0, h = 0;
    ScreenSentSize(s.w, s.h, &w, &h);
    EXPECT_EQ(w, s.sent_w) << s.w << "x" << s.h;
    EXPECT_EQ(h, s.sent_h) << s.w << "x" << s.h;
  }

  const auto pictures = Pictures(CreateScreenElement(virtual_screen), 3);
  ASSERT_EQ(pictures.size(), 3u);
  EXPECT_EQ(pictures[0].size(), static_cast<size_t>(1280 * 720 * 3 / 2));  // I420 at its size
  EXPECT_NE(pictures[0], pictures[2]);                                     // moving content
}

TEST(NetworkVideo, SourcesAreReadBeforeAcceptanceAndRefusedWithAReason) {
  ASSERT_TRUE(InitMedia(nullptr));
  std::string uri, error;
  EXPECT_TRUE(SourceUri("/tmp/clip.webm", &uri, &error));
  EXPECT_EQ(uri, "file:///tmp/clip.webm");
  EXPECT_TRUE(SourceUri("rtsp://10.213.0.1:8554/clip", &uri, &error));
  EXPECT_EQ(uri, "rtsp://10.213.0.1:8554/clip");
  for (const char* refused : {"clip.webm", "ftp://host/clip", "rtp://x"}) {
    EXPECT_FALSE(SourceUri(refused, &uri, &error)) << refused;
    EXPECT_EQ(error.rfind(std::string("Unsupported network video source '") + refused + "'", 0), 0u)
        << error;
  }

  char folder[] = "/tmp/open-network-video.XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string clip = std::string(folder) + "/clip.webm";
  const std::string sound = std::string(folder) + "/sound.webm";
  const std::string text = std::string(folder) + "/text.webm";
  ASSERT_TRUE(
      Make("videotestsrc num-buffers=20 pattern=ball ! "
           "video/x-raw,width=160,height=120,framerate=10/1 ! vp8enc deadline=1 ! "
           "webmmux ! filesink location=" +
           clip));
  ASSERT_TRUE(Make("audiotestsrc num-buffers=20 ! opusenc ! webmmux ! filesink location=" + sound));
  FILE* f = std::fopen(text.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("not a video at all\n", f);
  std::fclose(f);

  VideoSource source;
  ASSERT_TRUE(ProbeVideoSource(clip, &source, &error)) << error;
  EXPECT_EQ(source.uri, "file://" + clip);
  EXPECT_EQ(source.width, 160);
  EXPECT_EQ(source.height, 120);
  EXPECT_FALSE(source.live);
  int w = 0, h = 0;
  NetworkVideoSentSize(1920, 1080, &w, &h);
  EXPECT_EQ(w, 1280);
  EXPECT_EQ(h, 720);
  NetworkVideoSentSize(source.width, source.height, &w, &h);
  EXPECT_EQ(w, 160);
  EXPECT_EQ(h, 120);
  // The decoded pictures come out of the source element, the sound of a file is left alone.
  EXPECT_EQ(Pictures(CreateNetworkVideoElement(source), 2).size(), 2u);

  EXPECT_FALSE(ProbeVideoSource(sound, &source, &error));
  EXPECT_EQ(error, "Network video source '" + sound + "' holds no video");
  for (const std::string& unreadable : {text, std::string(folder) + "/missing.webm"}) {
    EXPECT_FALSE(ProbeVideoSource(unreadable, &source, &error));
    EXPECT_EQ(error.rfind("Cannot read network video source '" + unreadable + "': ", 0), 0u)
        << error;
  }
  for (const std::string& file : {clip, sound, text}) unlink(file.c_str());
  rmdir(folder);
}

}  // namespace
