// Joining and leaving, the last-error text, the callback table and tracing, through the C API.
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "Harness.h"

extern "C" void loggingCallback(unsigned int level, const char* text);

namespace convoke_test {
namespace {

const std::regex kUuid(
    "[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}");

std::string connectArguments(const std::string& entry) {
  // Everything after the URL: the nine arguments that follow it.
  const std::size_t afterName = entry.find('\t');
  const std::size_t afterUrl = entry.find('\t', afterName + 1);
  return entry.substr(afterUrl + 1);
}

class SessionTest : public HostTest {};

TEST_F(SessionTest, JoinConnectsBothEnginesAndReportsTheLocalParticipantOnce) {
  EXPECT_TRUE(join("ann@example.com", "short-key"));
  EXPECT_EQ(completionCalls(), 1);

  const auto audio = engineCalls("AudioConnect\t");
  const auto video = engineCalls("VideoConnect\t");
  ASSERT_EQ(audio.size(), 1u);
  ASSERT_EQ(video.size(), 1u);
  EXPECT_EQ(audio[0],
            "AudioConnect\trtsp://srv:46000/kt.sdp/4/room\tauto\t\tAnn\tann@example.com\tshort-key"
            "\tAES256\t0\t1\t0");
  EXPECT_EQ(video[0],
            "VideoConnect\trtsp://srv:46000/kt.sdp/6/room\tauto\t\tAnn\tann@example.com\tshort-key"
            "\tAES256\t0\t1\t0");
  // Audio connects before video.
  const auto log = engineLog();
  EXPECT_LT(std::find(log.begin(), log.end(), audio[0]),
            std::find(log.begin(), log.end(), video[0]));

  EXPECT_EQ(Recorder::instance().matching("participantAdded:"),
            std::vector<std::string>{"participantAdded:ann@example.com"});
  EXPECT_TRUE(getParticipantBool("ann@example.com", InfoKeyLocal));
  const char* site = nullptr;
  getParticipantString("ann@example.com", InfoKeySite, &site);
  ASSERT_NE(site, nullptr);
  EXPECT_STREQ(site, "Ann");
}

TEST_F(SessionTest, GeneratedLocalUuidDependsOnTheKeyLength) {
  const std::string key44(44, 'k');
  const std::string key45(45, 'k');

  join("", key45);
  std::string bare = connectArguments(engineCalls("VideoConnect\t").at(0));
  bare = bare.substr(bare.find("Ann\t") + 4);
  bare = bare.substr(0, bare.find('\t'));
  EXPECT_TRUE(std::regex_match(bare, kUuid)) << bare;
  // The same identity is used for both connections.
  EXPECT_EQ(connectArguments(engineCalls("AudioConnect\t").at(0)),
            connectArguments(engineCalls("VideoConnect\t").at(0)));
  exitMeeting();
  ktsim_log_clear();

  join("", key44);
  std::string guest = connectArguments(engineCalls("VideoConnect\t").at(0));
  guest = guest.substr(guest.find("Ann\t") + 4);
  guest = guest.substr(0, guest.find('\t'));
  ASSERT_EQ(guest.compare(0, 10, "guest-1@1-"), 0) << guest;
  EXPECT_TRUE(std::regex_match(guest.substr(10), kUuid)) << guest;
  EXPECT_EQ(Recorder::instance().matching("participantAdded:").back(), "participantAdded:" + guest);
  exitMeeting();
  ktsim_log_clear();

  // A given identity is used unchanged whatever the key length.
  join("given-id", key44);
  EXPECT_NE(engineCalls("VideoConnect\t").at(0).find("\tgiven-id\t"), std::string::npos);
}

TEST_F(SessionTest, ASecondJoinUnderTheSameUuidKeepsTheEntryAndReportsTheNewParticipant) {
  ASSERT_TRUE(join("ann@example.com"));
  videoEvent(videoSiteChanged("v1", "ann@example.com", "Ann cam", true, 64, 36));
  joinMeeting("srv", "room", "key", "ann@example.com", "Ann Again",
              [](bool ok) { EXPECT_TRUE(ok); });
  EXPECT_EQ(Recorder::instance().matching("participantAdded:"),
            (std::vector<std::string>{"participantAdded:ann@example.com",
                                      "participantAdded:ann@example.com"}));
  // The entry filed first is kept, with its stream.
  const char* site = nullptr;
  getParticipantString("ann@example.com", InfoKeySite, &site);
  EXPECT_STREQ(site, "Ann");
  EXPECT_EQ(getParticipantVideoInfoCount("ann@example.com"), 1u);
}

TEST_F(SessionTest, RefusedVideoConnectionFailsTheJoinWithoutAParticipant) {
  ktsim_set_connect_result(KTSIM_VIDEO, false);
  EXPECT_FALSE(join());
  EXPECT_EQ(completionCalls(), 1);
  EXPECT_EQ(engineCalls("AudioConnect\t").size(), 1u);  // audio is not undone
  EXPECT_TRUE(Recorder::instance().matching("participantAdded:").empty());
  EXPECT_EQ(getParticipantVideoInfoCount("ann@example.com"), 0u);
  EXPECT_FALSE(getParticipantBool("ann@example.com", InfoKeyLocal));
}

TEST_F(SessionTest, InvalidJoinParametersCallNoEngine) {
  struct Case {
    const char* server;
    const char* meeting;
    const char* key;
    const char* name;
  } cases[] = {{"", "m", "k", "n"}, {"s", "", "k", "n"}, {"s", "m", "", "n"}, {"s", "m", "k", ""}};
  for (const Case& c : cases) {
    static bool result;
    result = true;
    joinMeeting(c.server, c.meeting, c.key, "", c.name, [](bool ok) { result = ok; });
    EXPECT_FALSE(result);
  }
  EXPECT_TRUE(engineLog().empty());
  // A null completion never throws into the host.
  joinMeeting("s", "m", "k", "", "", nullptr);
  joinMeeting("s", "m", "k", "", "Ann", nullptr);
  EXPECT_EQ(engineCalls("VideoConnect\t").size(), 1u);
}

TEST_F(SessionTest, ExitDisconnectsBothEnginesAndForgetsEveryone) {
  join();
  audioEvent(audioSiteChanged("a2", "Bob's desk", "bob@example.com"));
  ktsim_log_clear();
  Recorder::instance().clear();

  exitMeeting();
  EXPECT_EQ(engineLog(), (std::vector<std::string>{"AudioDisconnect\t0", "VideoDisconnect\t0"}));
  const char* out = "unchanged";
  getParticipantString("bob@example.com", InfoKeyId, &out);
  EXPECT_EQ(out, nullptr);
  EXPECT_FALSE(getParticipantBool("ann@example.com", InfoKeyLocal));
  EXPECT_TRUE(Recorder::instance().lines().empty());  // no notifications for those who left

  // Leaving again, before any join, still disconnects both engines.
  ktsim_log_clear();
  exitMeeting();
  EXPECT_EQ(engineLog().size(), 2u);
}

TEST_F(SessionTest, LastErrorIsALibraryOwnedCopyOfTheLatestOutcome) {
  EXPECT_EQ(enableAudioInput(""), 0);
  const char* first = getLastError();
  EXPECT_STREQ(first, "Invalid device name");
  EXPECT_NE(enableAudioInput("mic"), 0);
  EXPECT_STREQ(getLastError(), "Success");
  // Joining, tracing and sounds leave the text alone.
  join();
  setTraceLevel(2);
  playSound(nullptr, 0);
  EXPECT_STREQ(getLastError(), "Success");
}

TEST_F(SessionTest, InitializeClearsEverySlotAndTheLogSlotIsNeverCalled) {
  ConvokeInitialize();
  join();
  audioEvent("<event name=\"input_meter\"><meter>9</meter></event>");
  EXPECT_TRUE(Recorder::instance().lines().empty());

  registerAllCallbacks();
  SetDelegateCallback(99, reinterpret_cast<void*>(+[] {}));  // out of range: ignored
  enableInlineAudioVideoLogging(true);
  enableAudioInput("");
  audioEvent("<event name=\"nonsense\"/>");
  audioEvent("");
  EXPECT_TRUE(Recorder::instance().matching("logMessage").empty());
  enableInlineAudioVideoLogging(false);

  // Clearing a slot switches that notification off.
  SetDelegateCallback(DelegateCallbackSlotInputMeterChanged, nullptr);
  audioEvent("<event name=\"input_meter\"><meter>9</meter></event>");
  audioEvent("<event name=\"output_meter\"><meter>7</meter></event>");
  EXPECT_EQ(Recorder::instance().lines(), std::vector<std::string>{"outputMeterChanged:7"});
}

TEST_F(SessionTest, TraceCallsReachTheEnginesInOrder) {
  setTraceLevel(4);
  audioTraceLevel(5);
  videoTraceLevel(6);
  audioTraceOutputHistory("a-history");
  videoTraceOutputHistory("v-history");
  enableInlineAudioVideoLogging(true);
  enableInlineAudioVideoLogging(false);
  EXPECT_EQ(engineLog(), (std::vector<std::string>{
                             "AudioSetTraceLevel\t4",
                             "VideoSetTraceLevel\t4",
                             "AudioSetTraceLevel\t5",
                             "VideoSetTraceLevel\t6",
                             "AudioTraceOutputHistory\ta-history",
                             "VideoTraceOutputHistory\tv-history",
                             "VideoTraceSetMessageCallback\tset",
                             "AudioTraceSetMessageCallback\tset",
                             "VideoTraceSetMessageCallback\tnull",
                             "AudioTraceSetMessageCallback\tnull",
                         }));
  EXPECT_EQ(ktsim_trace_level(KTSIM_AUDIO), 5);
  EXPECT_EQ(ktsim_trace_level(KTSIM_VIDEO), 6);
}

// The first log line creates the session, and creating it hands the engines their event
// callbacks, audio first. It runs in a fresh process, where nothing has created the session yet.
TEST(SessionCreation, TheFirstLogLineBindsTheEngines) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ktsim_log_clear();
        loggingCallback(6, "the first line");
        const std::vector<std::string> log = engineLog();
        for (const std::string& entry : log)
          std::fprintf(stderr, "engine call: %s\n", entry.c_str());
        std::_Exit(log == std::vector<std::string>{"AudioSetCallback\tset", "VideoSetCallback\tset"}
                       ? 0
                       : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace convoke_test
