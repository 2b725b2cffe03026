// The open core through the functions the engine libraries forward to, without a meeting server:
// refusals and their reasons, the device list with the virtual devices, and the device commands.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "core.h"

namespace {

using namespace ktopen;

std::string LastError(EngineId engine) {
  char buffer[512] = "";
  core::GetLastError(engine, buffer, sizeof buffer);
  return buffer;
}

// Refuses the command and returns the reason ("" when it was accepted).
std::string Refusal(EngineId engine, const std::string& xml) {
  if (core::SetRoot(engine, xml.c_str())) return "";
  return LastError(engine);
}

TEST(OpenCore, ConnectRefusalsGiveTheReason) {
  const std::string bad = "rtsp://host:46000/kt.sdp/6/room";  // the video engine's path
  EXPECT_FALSE(core::Connect(kAudio, bad.c_str(), "Ann", "ann"));
  EXPECT_EQ(LastError(kAudio), "Invalid server URL '" + bad + "'");
  EXPECT_FALSE(core::Connect(kVideo, nullptr, nullptr, nullptr));
  EXPECT_EQ(LastError(kVideo), "Invalid server URL ''");

  // A loopback port that refuses connections: a bound socket that does not listen.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t size = sizeof address;
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  setenv("CONVOKE_JANUS_PORT", port.c_str(), 1);
  setenv("CONVOKE_JANUS_PATH", "/api", 1);
  EXPECT_FALSE(core::Connect(kAudio, "rtsp://127.0.0.1:46000/kt.sdp/4/room", "Ann", "ann"));
  EXPECT_EQ(LastError(kAudio).rfind(
                "Meeting server unreachable at http://127.0.0.1:" + port + "/api: ", 0),
            0u)
      << LastError(kAudio);
  setenv("CONVOKE_JANUS_PORT", "http", 1);
  EXPECT_FALSE(core::Connect(kAudio, "rtsp://127.0.0.1:46000/kt.sdp/4/room", "Ann", "ann"));
  EXPECT_EQ(LastError(kAudio), "Invalid meeting server port 'http' (CONVOKE_JANUS_PORT)");
  unsetenv("CONVOKE_JANUS_PORT");
  unsetenv("CONVOKE_JANUS_PATH");
  close(fd);

  // Nothing was joined: leaving is harmless and frames are never ready.
  core::Disconnect(kAudio);
  core::Disconnect(kVideo);
  EXPECT_EQ(core::FrameReady("ann/video"), 0);
  EXPECT_EQ(core::FrameReady(nullptr), 0);
}

TEST(OpenCore, RefusedCommandsGiveTheReason) {
  const struct {
    EngineId engine;
    const char* xml;
    const char* reason;
  } cases[] = {
      {kVideo, "<video><local_url>rtp://x</local_url></video>", "Missing <url> in <local_url>"},
      {kVideo,
       "<video><local_url><url>/x.webm</url><command>playback_start</command>"
       "<profile>VP8 640x480 (30FPS)</profile></local_url></video>",
       "Network video can be published only in a meeting"},
      {kVideo,
       "<video><local_url><url>/x.webm</url><command>playback_stop</command></local_url></video>",
       "No network video playing from '/x.webm'"},
      {kVideo,
       "<video><local_url><url>/x.webm</url><command>playback_start</command></local_url></video>",
       "Missing <profile> in <local_url>"},
      {kVideo,
       "<video><devices><device id=\"virtual-screen\"><enable>true</enable>"
       "<profile>VP8 4K (10FPS)</profile></device></devices></video>",
       "A screen can be shared only in a meeting"},
      {kVideo,
       "<video><devices><device id=\"virtual-screen\"><enable>true</enable>"
       "<profile>VP8 640x480 (30FPS)</profile></device></devices></video>",
       "Unsupported profile 'VP8 640x480 (30FPS)' for video device 'virtual-screen'"},
      {kAudio, "<audio><sound id=\"ring\"/></audio>",
       "Unsupported element <sound> in audio command"},
      {kVideo, "<audio><tones enabled=\"true\"/></audio>",
       "Unsupported command <audio>, expected <video>"},
      {kAudio, "<audio/>", "Empty <audio> command"},
      {kAudio, "<audio><input><device id=\"nope\"><enable>true</enable></device></input></audio>",
       "Unknown audio input device 'nope'"},
      {kAudio,
       "<audio><input><device id=\"test-tone\"><volume>300</volume></device></input></audio>",
       "Invalid volume '300'"},
      {kAudio,
       "<audio><streams><stream id=\"x/audio\"><volume>50</volume></stream></streams></audio>",
       "Unknown audio stream 'x/audio'"},
      {kAudio, "<audio><tones enabled=\"yes\"/></audio>",
       "Invalid or missing 'enabled' on <tones>"},
      {kVideo,
       "<video><devices><device id=\"test-pattern\"><enable>true</enable></device>"
       "</devices></video>",
       "Missing <profile> for video device 'test-pattern'"},
      {kVideo,
       "<video><devices><device id=\"test-pattern\"><enable>true</enable>"
       "<profile>VP9 1x1</profile></device></devices></video>",
       "Unsupported profile 'VP9 1x1' for video device 'test-pattern'"},
      {kVideo,
       "<video><streams><stream id=\"x/video\"><render><enable>true</enable></render>"
       "</stream></streams></video>",
       "Unknown video stream 'x/video'"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Refusal(c.engine, c.xml), c.reason) << c.xml;
  }
  EXPECT_EQ(Refusal(kAudio, "<audio><input>").rfind("Malformed command: ", 0), 0u);
  // A refusal leaves nothing half applied: the first device is valid, the second is not.
  EXPECT_NE(Refusal(kAudio,
                    "<audio><input><device id=\"test-tone\"><enable>true</enable></device>"
                    "<device id=\"nope\"><enable>true</enable></device></input></audio>"),
            "");
  EXPECT_EQ(std::string(core::GetState(kAudio)).find("<enabled>true</enabled>"), std::string::npos);
}

TEST(OpenCore, StateListsTheVirtualDevicesAndFollowsTheCommands) {
  std::string audio = core::GetState(kAudio);
  EXPECT_EQ(audio.rfind("<audio><inputs>", 0), 0u) << audio;
  EXPECT_NE(audio.find("<device id=\"test-tone\"><name>Test tone</name>"), std::string::npos);
  EXPECT_NE(audio.find("<device id=\"null-speaker\"><name>No speaker</name>"), std::string::npos);
  const std::string video = core::GetState(kVideo);
  EXPECT_NE(video.find("<device id=\"test-pattern\"><name>Test pattern</name>"
                       "<enabled>false</enabled><codecs><codec name=\"VP8 640x480 (30FPS)\"/>"
                       "<codec name=\"VP8 1280x720 (30FPS)\"/><codec name=\"VP8 320x240 (15FPS)\"/>"
                       "</codecs></device>"),
            std::string::npos)
      << video;
  // The virtual screen comes after every camera, marked as a screen.
  EXPECT_NE(video.find("<device id=\"virtual-screen\"><name>Screen Capture - Virtual screen</name>"
                       "<screen>true</screen><enabled>false</enabled><codecs>"
                       "<codec name=\"VP8 4K (10FPS)\"/></codecs></device></inputs></video>"),
            std::string::npos)
      << video;

  ASSERT_EQ(Refusal(kAudio,
                    "<audio><input><device id=\"test-tone\"><enable>true</enable>"
                    "<volume>70</volume></device></input></audio>"),
            "");
  ASSERT_EQ(Refusal(kVideo,
                    "<video><devices><device id=\"test-pattern\"><enable>true</enable>"
                    "<profile>VP8 320x240 (15FPS)</profile></device></devices></video>"),
            "");
  audio = core::GetState(kAudio);
  EXPECT_NE(audio.find("<device id=\"test-tone\"><name>Test tone</name><preferred>"),
            std::string::npos);
  EXPECT_NE(audio.find("<enabled>true</enabled><volume>70</volume></device>"), std::string::npos)
      << audio;
  EXPECT_NE(
      std::string(core::GetState(kVideo))
          .find("<device id=\"test-pattern\"><name>Test pattern</name><enabled>true</enabled>"),
      std::string::npos);
  // The returned text stays valid after later calls.
  const char* first = core::GetState(kVideo);
  const std::string copy = first;
  ASSERT_EQ(Refusal(kVideo,
                    "<video><devices><device id=\"test-pattern\"><enable>false</enable>"
                    "</device></devices></video>"),
            "");
  core::GetState(kVideo);
  EXPECT_EQ(copy, first);
  ASSERT_EQ(Refusal(kAudio,
                    "<audio><input><device id=\"test-tone\"><enable>false</enable>"
                    "</device></input></audio>"),
            "");
}

}  // namespace
