// Results belong to the calling thread: query texts and the last-error text of one thread are never
// changed by another thread's calls, callbacks on engine threads included; queries and commands
// work from inside every kind of callback.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>

#include "Harness.h"
#include "common/WaitUntil.h"

namespace convoke_test {
namespace {

class ThreadResultsTest : public HostTest {
 protected:
  // Ann (local), Bob and Cyd with an audio stream each and a video stream of their own.
  void meet() {
    ASSERT_TRUE(join("ann@example.com"));
    audioEvent(audioSiteChanged("a-bob", "Bob Site", "bob@example.com"));
    audioEvent(audioSiteChanged("a-cyd", "Cyd Site", "cyd@example.com"));
    videoEvent(videoSiteChanged("v-bob", "bob@example.com", "Bob cam", false, 640, 360,
                                "<site>Bob Video</site><codecName>H264</codecName>"));
    videoEvent(videoSiteChanged("v-cyd", "cyd@example.com", "Cyd cam", false, 320, 180,
                                "<site>Cyd Video</site><codecName>VP8</codecName>"));
  }
};

// Runs `body` on a thread of its own and waits for it.
void onOtherThread(const std::function<void()>& body) { std::thread(body).join(); }

TEST_F(ThreadResultsTest, QueryTextsSurviveAnotherThreadsQueries) {
  meet();
  const char* site = nullptr;
  const char* audio = nullptr;
  const char* videoName = nullptr;
  const char* streamAt = nullptr;
  getParticipantString("bob@example.com", InfoKeySite, &site);
  getParticipantAudioInfoStreamId("bob@example.com", &audio);
  getVideoInfoString("v-bob", InfoKeyName, &videoName);
  getParticipantVideoInfoAt("bob@example.com", 0, &streamAt);
  ASSERT_NE(site, nullptr);
  ASSERT_NE(videoName, nullptr);

  // Another host thread fills its own buffers with Cyd's and Ann's records meanwhile.
  onOtherThread([] {
    const char* other = nullptr;
    getParticipantString("cyd@example.com", InfoKeySite, &other);
    EXPECT_STREQ(other, "Cyd Site");
    getParticipantAudioInfoSite("cyd@example.com", &other);
    EXPECT_STREQ(other, "Cyd Site");
    getVideoInfoString("v-cyd", InfoKeyName, &other);
    EXPECT_STREQ(other, "Cyd cam");
    getParticipantVideoInfoAt("cyd@example.com", 0, &other);
    EXPECT_STREQ(other, "v-cyd");
    getParticipantString("ann@example.com", InfoKeyId, &other);
    EXPECT_STREQ(other, "ann@example.com");
  });
  // And an event handler on the engine's thread reads through the library as well.
  audioEvent(audioSiteChanged("a-bob", "Bob New Site", "bob@example.com"));

  EXPECT_STREQ(site, "Bob Site");
  EXPECT_STREQ(audio, "a-bob");
  EXPECT_STREQ(videoName, "Bob cam");
  EXPECT_STREQ(streamAt, "v-bob");

  // On one thread the buffers behave as before: the next query of the same kind refills them.
  getParticipantString("cyd@example.com", InfoKeySite, &site);
  EXPECT_STREQ(site, "Cyd Site");
}

TEST_F(ThreadResultsTest, TwoHostThreadsQueryAtOnceAndEachKeepsItsOwnAnswers) {
  meet();
  std::atomic<int> wrong{0};
  // The two threads go in step: each query of one falls between two queries of the other and the
  // reading of its answers, however the threads are scheduled.
  std::atomic<int> rounds[2] = {{0}, {0}};
  std::atomic<bool> inStep{true};
  auto worker = [&](int me, const char* uuid, const char* expected, const char* stream,
                    const char* streamName) {
    for (int i = 0; i < 2000; ++i) {
      const char* site = nullptr;
      const char* name = nullptr;
      getParticipantString(uuid, InfoKeySite, &site);
      getVideoInfoString(stream, InfoKeyName, &name);
      rounds[me].store(i + 1);
      if (!convoke_test_support::waitUntil([&] { return rounds[1 - me].load() >= i + 1; })) {
        inStep = false;
      }
      if (site == nullptr || std::string(site) != expected) wrong.fetch_add(1);
      if (name == nullptr || std::string(name) != streamName) wrong.fetch_add(1);
    }
  };
  std::thread bob(worker, 0, "bob@example.com", "Bob Site", "v-bob", "Bob cam");
  std::thread cyd(worker, 1, "cyd@example.com", "Cyd Site", "v-cyd", "Cyd cam");
  bob.join();
  cyd.join();
  EXPECT_TRUE(inStep.load()) << "a thread stopped making progress";
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(ThreadResultsTest, LastErrorBelongsToTheThreadThatIssuedTheCommand) {
  EXPECT_EQ(enableAudioInput(""), 0);
  EXPECT_STREQ(getLastError(), "Invalid device name");
  const char* held = getLastError();

  onOtherThread([] {
    EXPECT_STREQ(getLastError(), "");  // a new thread has issued nothing yet
    EXPECT_NE(enableAudioInput("mic"), 0);
    EXPECT_STREQ(getLastError(), "Success");
    EXPECT_EQ(setAudioInputVolume("mic", 101), 0);
    EXPECT_STREQ(getLastError(), "Invalid volume value");
  });
  // The library sets the volume of a new audio stream on the engine's thread.
  join();
  audioEvent(audioSiteChanged("a-bob", "Bob Site", "bob@example.com"));
  ASSERT_FALSE(engineCalls("AudioSetRoot\t").empty());

  EXPECT_STREQ(held, "Invalid device name");
  EXPECT_STREQ(getLastError(), "Invalid device name");
  EXPECT_NE(enableAudioOutput("spk"), 0);
  EXPECT_STREQ(getLastError(), "Success");
}

// Every callback queries the participant or stream it was told about, reads its thread's last
// error after a refused command, and records what it saw.
std::mutex gSeenMutex;
std::map<std::string, std::string> gSeen;  // callback kind -> what the queries returned

void see(const std::string& kind, const std::string& what) {
  std::lock_guard<std::mutex> lock(gSeenMutex);
  gSeen.emplace(kind, what);  // the first call of each kind
}

std::string text(const char* s) { return s != nullptr ? s : "(null)"; }

std::string refusalSeen() {
  enableAudioInput("");
  return text(getLastError());
}

void queryParticipant(const char* kind, const char* uuid) {
  const char* id = nullptr;
  getParticipantString(uuid, InfoKeyId, &id);
  see(kind, text(id) + "|" + refusalSeen());
}

void queryStream(const char* kind, const char* uuid, const char* stream) {
  const char* name = nullptr;
  getVideoInfoString(stream, InfoKeyId, &name);
  char owner[64] = {0};
  findParticipantByVideoStreamId(stream, owner, sizeof owner);
  see(kind, text(uuid) + ":" + text(name) + ":" + owner + "|" + refusalSeen());
}

TEST_F(ThreadResultsTest, QueriesAndCommandsWorkFromInsideEveryKindOfCallback) {
  gSeen.clear();
  SetDelegateCallback(
      DelegateCallbackSlotParticipantAdded,
      reinterpret_cast<void*>(+[](const char* u) { queryParticipant("added", u); }));
  SetDelegateCallback(
      DelegateCallbackSlotParticipantAudioAdded,
      reinterpret_cast<void*>(+[](const char* u) { queryParticipant("audio", u); }));
  SetDelegateCallback(
      DelegateCallbackSlotParticipantVideoAdded,
      reinterpret_cast<void*>(+[](const char* u, const char* s) { queryStream("video", u, s); }));
  SetDelegateCallback(
      DelegateCallbackSlotParticipantVideoRemoteLayoutChanged,
      reinterpret_cast<void*>(+[](const char* u, const char* s) { queryStream("layout", u, s); }));
  SetDelegateCallback(
      DelegateCallbackSlotVideoStreamBufferReady,
      reinterpret_cast<void*>(+[](const char* s, void*) { queryStream("buffer", "", s); }));
  SetDelegateCallback(DelegateCallbackSlotVideoFrameReady,
                      reinterpret_cast<void*>(+[](const char* s, void*) {
                        queryStream("frame", "", s);
                        pauseVideoFrameProcessing(s);  // from its own frame: must not wait for it
                      }));
  SetDelegateCallback(DelegateCallbackSlotParticipantAmplitudeChanged,
                      reinterpret_cast<void*>(+[](const char* u, unsigned char, bool) {
                        queryParticipant("amplitude", u);
                      }));
  SetDelegateCallback(
      DelegateCallbackSlotParticipantRemoved,
      reinterpret_cast<void*>(+[](const char* u) { queryParticipant("removed", u); }));

  ASSERT_TRUE(join("ann@example.com"));  // reports the local participant on this thread
  disableVideoStream("");                // this thread's own refusal, kept from here on
  audioEvent(audioSiteChanged("a-bob", "Bob Site", "bob@example.com"));
  videoEvent(videoSiteChanged("v-bob", "bob@example.com", "Bob cam", false, 640, 360));
  videoEvent(
      "<event name=\"remote_layout_changed\"><stream id=\"v-bob\"><layout>3</layout></stream>"
      "</event>");
  audioEvent(
      "<event name=\"amplitude\"><stream id=\"a-bob\" muted=\"false\"><amplitude>40</amplitude>"
      "</stream></event>");
  ktsim_set_frame_ready("v-bob", 1);
  videoEvent(
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v-bob\" pixel_buffer=\"5\"/>"
      "</event>");
  ASSERT_TRUE(convoke_test_support::waitUntil([] {
    std::lock_guard<std::mutex> lock(gSeenMutex);
    return gSeen.count("frame") != 0;
  }));
  audioEvent("<event name=\"audio_stream_removed\"><stream id=\"a-bob\"/></event>");

  std::lock_guard<std::mutex> lock(gSeenMutex);
  const std::string refused = "|Invalid device name";
  EXPECT_EQ(gSeen["added"], "ann@example.com" + refused);
  EXPECT_EQ(gSeen["audio"], "bob@example.com" + refused);
  EXPECT_EQ(gSeen["video"], "bob@example.com:v-bob:bob@example.com" + refused);
  EXPECT_EQ(gSeen["layout"], "bob@example.com:v-bob:bob@example.com" + refused);
  EXPECT_EQ(gSeen["buffer"], ":v-bob:bob@example.com" + refused);
  EXPECT_EQ(gSeen["frame"], ":v-bob:bob@example.com" + refused);
  EXPECT_EQ(gSeen["amplitude"], "bob@example.com" + refused);
  // The participant is already gone from the registry when its removal is reported.
  EXPECT_NE(gSeen["removed"].find(refused), std::string::npos) << gSeen["removed"];
  // The engine threads' refusals did not touch the test thread's own last error.
  EXPECT_STREQ(getLastError(), "Invalid streamId");
}

}  // namespace
}  // namespace convoke_test
