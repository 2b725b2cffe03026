// Audio commands, sounds and audio events through the C API and the simulated audio engine.
#include "Harness.h"

namespace convoke_test {
namespace {

class AudioTest : public HostTest {};

const char kTones[] =
    "AudioSetRoot\t<audio><tones enabled=\"true\"/><conditions enabled=\"false\"/><aec "
    "enabled=\"true\"/></audio>";

TEST_F(AudioTest, CommandsSendTheirExactDocuments) {
  struct Case {
    std::function<int()> call;
    std::vector<std::string> sent;
  } cases[] = {
      {[] { return enableAudioInput("mic1"); },
       {"AudioSetRoot\t<audio><input><device guid=\"\" id=\"mic1\"><enable>true</enable><volume>100"
        "</volume><profile>opus-16k-mono</profile></device></input></audio>",
        kTones}},
      {[] { return disableAudioInput("mic1"); },
       {"AudioSetRoot\t<audio><input><device guid=\"\" id=\"mic1\"><enable>false</enable></device>"
        "</input></audio>",
        kTones}},
      {[] { return enableAudioOutput("spk1"); },
       {"AudioSetRoot\t<audio><output><device guid=\"\" id=\"spk1\"><enable>true</enable><volume>50"
        "</volume><profile>opus-16k-mono</profile></device></output></audio>"}},
      {[] { return disableAudioOutput("spk1"); },
       {"AudioSetRoot\t<audio><output><device guid=\"\" id=\"spk1\"><enable>false</enable>"
        "</device></output></audio>"}},
      {[] { return setAudioStreamVolume("a7", 200); },
       {"AudioSetRoot\t<audio><streams><stream id=\"a7\"><volume>200</volume></stream></streams>"
        "</audio>"}},
      {[] { return setAudioInputVolume("mic1", 100); },
       {"AudioSetRoot\t<audio><input><device id=\"mic1\"><volume>100</volume></device></input>"
        "</audio>"}},
      {[] { return setAudioOutputVolume("spk1", 30); },
       {"AudioSetRoot\t<audio><output><device id=\"spk1\"><volume>30</volume></device></output>"
        "</audio>"}},
      // Identifiers are inserted unescaped.
      {[] { return setAudioOutputVolume("a\"<b", 0); },
       {"AudioSetRoot\t<audio><output><device id=\"a\"<b\"><volume>0</volume></device></output>"
        "</audio>"}},
  };
  for (const Case& c : cases) {
    ktsim_log_clear();
    EXPECT_NE(c.call(), 0);
    EXPECT_STREQ(getLastError(), "Success");
    EXPECT_EQ(engineLog(), c.sent);
  }
}

TEST_F(AudioTest, ValidationRefusesBeforeTheEngineIsCalled) {
  struct Case {
    std::function<int()> call;
    const char* message;
  } cases[] = {
      {[] { return enableAudioInput(""); }, "Invalid device name"},
      {[] { return disableAudioInput(""); }, "Invalid device name"},
      {[] { return enableAudioOutput(""); }, "Invalid device name"},
      {[] { return disableAudioOutput(""); }, "Invalid device name"},
      {[] { return setAudioStreamVolume("", 5); }, "Invalid stream ID"},
      {[] { return setAudioInputVolume("", 150); }, "Invalid device"},
      {[] { return setAudioInputVolume("mic", 101); }, "Invalid volume value"},
      {[] { return setAudioOutputVolume("", 5); }, "Invalid device"},
      {[] { return setAudioOutputVolume("spk", 255); }, "Invalid volume value"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.call(), 0);
    EXPECT_STREQ(getLastError(), c.message);
  }
  EXPECT_TRUE(engineLog().empty());
}

TEST_F(AudioTest, EngineRefusalReportsItsTextOrUnknownError) {
  ktsim_set_setroot_result(KTSIM_AUDIO, false);
  ktsim_set_last_error(KTSIM_AUDIO, "device busy");
  EXPECT_EQ(enableAudioInput("mic1"), 0);
  EXPECT_STREQ(getLastError(), "device busy");
  const auto log = engineLog();
  ASSERT_EQ(log.size(), 2u);  // the command and the error query; no tones document
  EXPECT_EQ(log[1], "AudioGetLastError\t1024");

  ktsim_set_last_error(KTSIM_AUDIO, nullptr);
  EXPECT_EQ(setAudioOutputVolume("spk1", 10), 0);
  EXPECT_STREQ(getLastError(), "Unknown error");
}

TEST_F(AudioTest, SoundsPassThePointerAndLeaveTheLastErrorAlone) {
  static const char sound[] = "RIFF....";
  enableAudioInput("");
  EXPECT_NE(playSound(sound, sizeof(sound)), 0);
  EXPECT_NE(stopSound(sound), 0);
  EXPECT_EQ(playSound(nullptr, 3), 0);
  EXPECT_EQ(stopSound(nullptr), 0);
  const std::string pointer = std::to_string(reinterpret_cast<uintptr_t>(sound));
  EXPECT_EQ(engineLog(), (std::vector<std::string>{"AudioPlaySound\t" + pointer + "\t" +
                                                       std::to_string(sizeof(sound)) + "\t",
                                                   "AudioStopSound\t" + pointer}));
  EXPECT_STREQ(getLastError(), "Invalid device name");
}

TEST_F(AudioTest, SiteChangesAddAndUpdateParticipantsAtHalfVolume) {
  audioEvent(audioSiteChanged("a1", "Bob's desk", "bob@example.com"));
  EXPECT_EQ(Recorder::instance().lines(),
            (std::vector<std::string>{"participantAdded:bob@example.com",
                                      "participantAudioAdded:bob@example.com"}));
  EXPECT_EQ(engineCalls("AudioSetRoot\t"),
            std::vector<std::string>{"AudioSetRoot\t<audio><streams><stream id=\"a1\"><volume>50"
                                     "</volume></stream></streams></audio>"});
  const char* out = nullptr;
  getParticipantAudioInfoStreamId("bob@example.com", &out);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "a1");
  getParticipantAudioInfoSite("bob@example.com", &out);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "Bob's desk");
  EXPECT_FALSE(getParticipantBool("bob@example.com", InfoKeyLocal));

  Recorder::instance().clear();
  audioEvent(audioSiteChanged("a9", "Bob's desk", "bob@example.com"));
  EXPECT_EQ(Recorder::instance().lines(),
            std::vector<std::string>{"participantAudioUpdated:bob@example.com"});
  getParticipantAudioInfoStreamId("bob@example.com", &out);
  EXPECT_STREQ(out, "a9");

  // A participant first seen through video only gains audio.
  Recorder::instance().clear();
  videoEvent(videoSiteChanged("v1", "cy@example.com", "Cy", false, 640, 360));
  getParticipantAudioInfoSite("cy@example.com", &out);
  EXPECT_EQ(out, nullptr);
  Recorder::instance().clear();
  audioEvent(audioSiteChanged("a3", "Cy's room", "cy@example.com"));
  EXPECT_EQ(Recorder::instance().lines(),
            std::vector<std::string>{"participantAudioAdded:cy@example.com"});

  // Missing pieces are refused.
  Recorder::instance().clear();
  audioEvent(
      "<event name=\"audio_site_changed\"><stream id=\"a4\"><site>x</site></stream></event>");
  audioEvent("<event name=\"audio_site_changed\"><stream><site>x</site></stream></event>");
  EXPECT_TRUE(Recorder::instance().lines().empty());
}

TEST_F(AudioTest, AmplitudeMetersConditionsAndPlaybackReachTheHost) {
  audioEvent(audioSiteChanged("a1", "desk", "bob@example.com"));
  Recorder::instance().clear();
  audioEvent(
      "<event name=\"amplitude\"><stream id=\"a1\" muted=\"true\"><amplitude>42</amplitude>"
      "</stream></event>");
  audioEvent(
      "<event name=\"amplitude\"><stream id=\"a1\" muted=\"TRUE\"><amplitude>256</amplitude>"
      "</stream></event>");
  audioEvent(  // unknown stream, missing muted, missing amplitude: nothing reported
      "<event name=\"amplitude\"><stream id=\"zz\" muted=\"false\"><amplitude>1</amplitude>"
      "</stream></event>");
  audioEvent(
      "<event name=\"amplitude\"><stream id=\"a1\"><amplitude>1</amplitude></stream></event>");
  audioEvent("<event name=\"amplitude\"><stream id=\"a1\" muted=\"false\"></stream></event>");
  audioEvent("<event name=\"input_meter\"><meter>300</meter></event>");
  audioEvent("<event name=\"output_meter\"><meter>17</meter></event>");
  audioEvent("<event name=\"input_meter\"></event>");
  audioEvent(
      "<event name=\"audio_update_conditions\"><conditions><received>5</received></conditions>"
      "</event>");
  audioEvent(
      "<event name=\"audio_update_conditions\"><conditions><received>1</received><sent>2</sent>"
      "<data_bytes_dropped>3</data_bytes_dropped><ctrl_bytes_dropped>4</ctrl_bytes_dropped>"
      "<cpu_usage>5</cpu_usage><bars>6</bars><upstream loss=\"7\" latency=\"8\"/>"
      "<downstream loss=\"9\" latency=\"10\"/></conditions></event>");
  audioEvent("<event name=\"binary_playback_ended\"><data>18446744073709551</data></event>");
  audioEvent("<event name=\"binary_playback_failed\"><data>x</data></event>");
  audioEvent("<event name=\"Amplitude\"/>");  // names are case-sensitive: unhandled
  EXPECT_EQ(Recorder::instance().lines(),
            (std::vector<std::string>{
                "participantAmplitudeChanged:bob@example.com:42:muted",
                "participantAmplitudeChanged:bob@example.com:0:unmuted",
                "inputMeterChanged:44",
                "outputMeterChanged:17",
                "audioConditionUpdate:5,0,0,0,0,0,0,0,0,0",
                "audioConditionUpdate:1,2,3,4,5,6,7,8,9,10",
                "binaryPlaybackEnded:18446744073709551",
                "binaryPlaybackFailed:0",
            }));
}

TEST_F(AudioTest, StreamRemovalRemovesTheWholeParticipant) {
  audioEvent(audioSiteChanged("a1", "desk", "bob@example.com"));
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 640, 360));
  Recorder::instance().clear();
  audioEvent("<event name=\"audio_stream_removed\"><stream id=\"nope\"/></event>");
  EXPECT_TRUE(Recorder::instance().lines().empty());
  audioEvent("<event name=\"audio_stream_removed\"><stream id=\"a1\"/></event>");
  EXPECT_EQ(Recorder::instance().lines(),
            std::vector<std::string>{"participantRemoved:bob@example.com"});
  EXPECT_EQ(getParticipantVideoInfoCount("bob@example.com"), 0u);
  const char* out = nullptr;
  getVideoInfoString("v1", InfoKeyId, &out);
  EXPECT_EQ(out, nullptr);
  char buffer[8] = "xxxxxxx";
  findParticipantByAudioStreamId("a1", buffer, sizeof(buffer));
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(AudioTest, MalformedDocumentsNeverReachTheHost) {
  const char* documents[] = {
      "",
      "not xml",
      "<event>",
      "<event name=\"amplitude\">",
      "<<<>>>",
      "<event name='x'></event>",
      "<a><b><c></a>",
      "<event name=\"amplitude\"><stream id=\"a1\" muted=\"x\"><amplitude>",
  };
  for (const char* document : documents) audioEvent(document);
  EXPECT_TRUE(Recorder::instance().lines().empty());
}

}  // namespace
}  // namespace convoke_test
