// Device and capability lists over the engines' state documents, and the unknown-key queries.
#include <cstdlib>

#include "Harness.h"

namespace convoke_test {
namespace {

class ListsTest : public HostTest {};

std::vector<std::string> strings(char** array, unsigned short count) {
  return std::vector<std::string>(array, array + count);
}

const char kVideoState[] =
    "<video><inputs>"
    "<device id=\"cam1\"><codecs><codec name=\"H264 720p\"/><codec/><codec name=\"VP8\"/></codecs>"
    "</device>"
    "<device id=\"scr1\"><screen>true</screen></device>"
    "<device id=\"cam2\"><screen>True</screen></device>"
    "<device><screen>true</screen></device>"
    "<device id=\"cam3\"/>"
    "</inputs></video>";

const char kAudioState[] =
    "<audio><inputs>"
    "<device id=\"mic1\"/><device id=\"mic2\"><preferred>true</preferred></device>"
    "<device><preferred>true</preferred></device>"
    "<device id=\"mic3\"><preferred>true</preferred></device>"
    "</inputs><outputs><device id=\"spk1\"/></outputs></audio>";

TEST_F(ListsTest, VideoDevicesSplitCamerasFromScreensAndListCodecs) {
  ktsim_set_state(KTSIM_VIDEO, kVideoState);
  char** devices = nullptr;
  char** screens = nullptr;
  unsigned short deviceCount = 0, screenCount = 0;
  getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
  EXPECT_EQ(strings(devices, deviceCount), (std::vector<std::string>{"cam1", "cam2", "cam3"}));
  EXPECT_EQ(strings(screens, screenCount), std::vector<std::string>{"scr1"});

  char** codecs = nullptr;
  unsigned short codecCount = 0;
  getSupportedVideoSendResolutions("cam1", &codecs, &codecCount);
  EXPECT_EQ(strings(codecs, codecCount), (std::vector<std::string>{"H264 720p", "VP8"}));
  getSupportedVideoSendResolutions("cam", &codecs, &codecCount);  // ids match exactly
  EXPECT_EQ(codecCount, 0);
  getSupportedVideoSendResolutions("cam3", &codecs, &codecCount);  // no codecs element
  EXPECT_EQ(codecCount, 0);

  // Listing again replaces the arrays.
  getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
  EXPECT_EQ(deviceCount, 3);
  ConvokeDeallocate();
}

TEST_F(ListsTest, AudioDevicesReportTheLastPreferredOneAsAHostOwnedCopy) {
  ktsim_set_state(KTSIM_AUDIO, kAudioState);
  char** devices = nullptr;
  unsigned short count = 0;
  char* preferred = nullptr;
  getAudioInputDevices(&devices, &count, &preferred);
  EXPECT_EQ(strings(devices, count), (std::vector<std::string>{"mic1", "mic2", "mic3"}));
  ASSERT_NE(preferred, nullptr);
  EXPECT_STREQ(preferred, "mic3");
  std::free(preferred);

  getAudioOutputDevices(&devices, &count, &preferred);
  EXPECT_EQ(strings(devices, count), std::vector<std::string>{"spk1"});
  EXPECT_EQ(preferred, nullptr);
  ConvokeDeallocate();
}

TEST_F(ListsTest, EmptyAndBrokenStatesGiveEmptyListsWithoutDoubleRelease) {
  ktsim_set_state(KTSIM_VIDEO, kVideoState);
  ktsim_set_state(KTSIM_AUDIO, kAudioState);
  char** devices = nullptr;
  char** screens = nullptr;
  unsigned short deviceCount = 0, screenCount = 0;
  char* preferred = nullptr;
  getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
  getAudioInputDevices(&devices, &deviceCount, &preferred);
  std::free(preferred);

  const char* broken[] = {"", "<video>", "<video></video>", "<audio><inputs/></audio>", "garbage"};
  for (const char* state : broken) {
    ktsim_set_state(KTSIM_VIDEO, state);
    ktsim_set_state(KTSIM_AUDIO, state);
    // Each call releases the previous arrays exactly once; the sanitizer build checks that.
    getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
    EXPECT_EQ(deviceCount, 0);
    EXPECT_EQ(screenCount, 0);
    getAudioInputDevices(&devices, &deviceCount, &preferred);
    EXPECT_EQ(deviceCount, 0);
    EXPECT_EQ(preferred, nullptr);
    getAudioOutputDevices(&devices, &deviceCount, &preferred);
    EXPECT_EQ(deviceCount, 0);
    char** codecs = nullptr;
    getSupportedVideoSendResolutions("cam1", &codecs, &deviceCount);
    EXPECT_EQ(deviceCount, 0);
  }
  ConvokeDeallocate();
  ConvokeDeallocate();
  getVideoDevices(&devices, &deviceCount, &screens, &screenCount);
  EXPECT_EQ(deviceCount, 0);
}

TEST_F(ListsTest, UnknownParticipantsStreamsAndKeysAreNotErrors) {
  join("ann@example.com");
  enableAudioInput("");
  const char* out = "unchanged";
  getParticipantString("nobody", InfoKeyId, &out);
  EXPECT_EQ(out, nullptr);
  getParticipantString("ann@example.com", InfoKeyLocal, &out);
  EXPECT_EQ(out, nullptr);
  EXPECT_FALSE(getParticipantBool("ann@example.com", InfoKeyId));
  EXPECT_EQ(getParticipantVideoInfoCount("nobody"), 0u);
  out = "unchanged";
  getParticipantVideoInfoAt("nobody", 0, &out);
  EXPECT_STREQ(out, "unchanged");
  getVideoInfoString("nostream", InfoKeyId, &out);
  EXPECT_EQ(out, nullptr);
  EXPECT_FALSE(getVideoInfoBool("nostream", InfoKeyLocal));
  EXPECT_EQ(getVideoInfoInt("nostream", InfoKeyWidth), 0);
  getParticipantAudioInfoStreamId("ann@example.com", &out);  // the local user has no audio stream
  EXPECT_EQ(out, nullptr);
  char buffer[4] = "abc";
  findParticipantByAudioStreamId("x", buffer, 0);
  EXPECT_STREQ(buffer, "abc");
  // An empty audio stream id matches the first participant without an audio stream.
  findParticipantByAudioStreamId("", buffer, sizeof(buffer));
  EXPECT_EQ(std::string(buffer, 3), "ann");
  EXPECT_FALSE(isScreenShare(""));
  EXPECT_TRUE(isScreenShare("x VP8 4K (10FPS)"));
  EXPECT_STREQ(getLastError(), "Invalid device name");
}

}  // namespace
}  // namespace convoke_test
