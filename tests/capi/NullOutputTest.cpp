// Every pointer a function writes through may be NULL: nothing is written there, the other outputs
// are still filled and the lists are still refreshed.
#include <cstdlib>

#include "Harness.h"

namespace convoke_test {
namespace {

class NullOutputTest : public HostTest {};

TEST_F(NullOutputTest, ListFunctionsSkipNullOutputsAndStillRefreshTheLists) {
  ktsim_set_state(KTSIM_VIDEO,
                  "<video><inputs><device id=\"cam1\"><codecs><codec name=\"VP8\"/></codecs>"
                  "</device><device id=\"scr1\"><screen>true</screen></device></inputs></video>");
  ktsim_set_state(KTSIM_AUDIO,
                  "<audio><inputs><device id=\"mic1\"><preferred>true</preferred></device></inputs>"
                  "<outputs><device id=\"spk1\"><preferred>true</preferred></device></outputs>"
                  "</audio>");
  getVideoDevices(nullptr, nullptr, nullptr, nullptr);
  char** screens = nullptr;
  unsigned short screenCount = 0;
  getVideoDevices(nullptr, nullptr, &screens, &screenCount);
  ASSERT_EQ(screenCount, 1);
  EXPECT_STREQ(screens[0], "scr1");
  unsigned short deviceCount = 0;
  getVideoDevices(nullptr, &deviceCount, nullptr, nullptr);
  EXPECT_EQ(deviceCount, 1);

  getAudioInputDevices(nullptr, nullptr, nullptr);
  getAudioOutputDevices(nullptr, nullptr, nullptr);
  char** inputs = nullptr;
  getAudioInputDevices(&inputs, nullptr, nullptr);  // no preferred copy is made
  ASSERT_NE(inputs, nullptr);
  EXPECT_STREQ(inputs[0], "mic1");
  char* preferred = nullptr;
  unsigned short outputCount = 0;
  getAudioOutputDevices(nullptr, &outputCount, &preferred);
  EXPECT_EQ(outputCount, 1);
  EXPECT_STREQ(preferred, "spk1");
  std::free(preferred);

  getSupportedVideoSendResolutions("cam1", nullptr, nullptr);
  unsigned short codecCount = 0;
  getSupportedVideoSendResolutions("cam1", nullptr, &codecCount);
  EXPECT_EQ(codecCount, 1);
  // The refreshed array is the one handed out next.
  char** codecs = nullptr;
  getSupportedVideoSendResolutions("cam1", &codecs, nullptr);
  ASSERT_NE(codecs, nullptr);
  EXPECT_STREQ(codecs[0], "VP8");
}

TEST_F(NullOutputTest, QueriesSkipNullOutputs) {
  ASSERT_TRUE(join("ann@example.com"));
  audioEvent(audioSiteChanged("a-bob", "Bob Site", "bob@example.com"));
  videoEvent(videoSiteChanged("v-bob", "bob@example.com", "Bob cam", false, 640, 360));
  for (const char* uuid : {"ann@example.com", "bob@example.com", "nobody"}) {
    for (int key = InfoKeyId; key <= InfoKeyHeight; ++key) {
      getParticipantString(uuid, key, nullptr);
      getVideoInfoString("v-bob", key, nullptr);
      getVideoInfoString("nothing", key, nullptr);
    }
    getParticipantVideoInfoAt(uuid, 0, nullptr);
    getParticipantVideoInfoAt(uuid, 7, nullptr);
    getParticipantAudioInfoStreamId(uuid, nullptr);
    getParticipantAudioInfoSite(uuid, nullptr);
  }
  findParticipantByVideoStreamId("v-bob", nullptr, 16);
  findParticipantByAudioStreamId("a-bob", nullptr, 16);
  findParticipantByAudioStreamId("zz", nullptr, 16);

  // The same queries with real outputs still answer after the NULL ones.
  const char* site = nullptr;
  getParticipantString("bob@example.com", InfoKeySite, &site);
  EXPECT_STREQ(site, "Bob Site");
  const char* stream = nullptr;
  getParticipantVideoInfoAt("bob@example.com", 0, &stream);
  EXPECT_STREQ(stream, "v-bob");
}

}  // namespace
}  // namespace convoke_test
