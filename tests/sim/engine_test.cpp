// The simulated engines through their C ABI, under manual control.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim_fixture.h"

namespace simtest {
namespace {

using EngineEvents = SimTest;
using EngineCalls = SimTest;

TEST_F(EngineEvents, EachEngineDeliversInOrderOnItsOwnThread) {
  const int kEach = 200;
  for (int i = 0; i < kEach; ++i) {
    ktsim_deliver(KTSIM_AUDIO, ("a" + std::to_string(i)).c_str());
    ktsim_deliver(KTSIM_VIDEO, ("v" + std::to_string(i)).c_str());
  }
  ktsim_flush(KTSIM_AUDIO);
  ktsim_flush(KTSIM_VIDEO);

  std::vector<Received> got = recorder().Take();
  ASSERT_EQ(got.size(), 2u * kEach);
  int next[2] = {0, 0};
  std::thread::id thread[2];
  for (const Received& r : got) {
    const int e = r.engine == KTSIM_VIDEO ? 1 : 0;
    EXPECT_EQ(r.text, (e ? "v" : "a") + std::to_string(next[e]));
    if (next[e]++ == 0) thread[e] = r.thread;
    EXPECT_EQ(r.thread, thread[e]) << r.text;
  }
  EXPECT_NE(thread[0], thread[1]);
  EXPECT_NE(thread[0], std::this_thread::get_id());
  EXPECT_NE(thread[1], std::this_thread::get_id());
}

TEST_F(EngineEvents, DeliverSyncReturnsOnlyAfterTheCallbackReturned) {
  std::atomic<bool> finished{false};
  recorder().hook = [&](ktsim_engine, const std::string& text) {
    if (text == "slow") {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      finished = true;
    }
  };
  ktsim_deliver(KTSIM_VIDEO, "first");
  ktsim_deliver_sync(KTSIM_VIDEO, "slow");
  EXPECT_TRUE(finished);
  ASSERT_EQ(recorder().Snapshot().size(), 2u);
}

TEST_F(EngineEvents, ACallbackMayCallEveryEngineAndControlFunction) {
  // From inside the audio callback: commands, nested deliveries (sync ones included), flushes
  // and a shutdown of its own thread. None of it may deadlock.
  recorder().hook = [](ktsim_engine engine, const std::string& text) {
    if (engine != KTSIM_AUDIO || text != "go") return;
    char buffer[64];
    AudioSetRoot("<audio/>");
    AudioGetLastError(buffer, sizeof buffer);
    AudioGetState();
    ktsim_deliver_sync(KTSIM_AUDIO, "nested");  // cannot wait for itself: queued behind us
    ktsim_flush(KTSIM_AUDIO);
    ktsim_deliver_sync(KTSIM_VIDEO, "cross");  // the other engine's thread can deliver it
    ktsim_shutdown();
  };
  ktsim_deliver(KTSIM_AUDIO, "go");
  ASSERT_TRUE(recorder().WaitUntil([](const std::vector<Received>& got) {
    return got.size() == 3 && got.back().text == "nested";
  }));
  std::vector<Received> got = recorder().Take();
  EXPECT_EQ(got[0].text, "go");
  EXPECT_EQ(got[1].text, "cross");
  EXPECT_EQ(got[1].engine, KTSIM_VIDEO);
  EXPECT_EQ(got[2].engine, KTSIM_AUDIO);
}

TEST_F(EngineEvents, EventsWithoutACallbackAreDroppedAndTraceLinesKeepTheirPlace) {
  AudioSetCallback(nullptr);
  ktsim_deliver_sync(KTSIM_AUDIO, "lost");
  AudioSetCallback(AudioEvent);
  ktsim_emit_trace(KTSIM_AUDIO, 4, "not registered yet");
  ktsim_flush(KTSIM_AUDIO);
  AudioTraceSetMessageCallback(AudioTrace);
  ktsim_deliver(KTSIM_AUDIO, "one");
  ktsim_emit_trace(KTSIM_AUDIO, 3, "between");
  ktsim_deliver(KTSIM_AUDIO, "two");
  ktsim_flush(KTSIM_AUDIO);

  std::vector<Received> got = recorder().Take();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].text, "one");
  EXPECT_EQ(got[1].text, "trace 3 between");
  EXPECT_EQ(got[2].text, "two");
  EXPECT_EQ(got[0].thread, got[1].thread);
}

TEST_F(EngineEvents, ResetDropsQueuedEventsAndKeepsCallbacks) {
  std::atomic<bool> release{false};
  recorder().hook = [&](ktsim_engine, const std::string& text) {
    while (text == "block" && !release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  ktsim_deliver(KTSIM_VIDEO, "block");
  for (int i = 0; i < 10; ++i) ktsim_deliver(KTSIM_VIDEO, "queued");
  ASSERT_TRUE(recorder().WaitUntil([](const std::vector<Received>& got) { return !got.empty(); }));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    release = true;
  });
  ktsim_reset();  // waits for the running callback
  EXPECT_TRUE(release);
  releaser.join();
  ktsim_deliver_sync(KTSIM_VIDEO, "after");

  std::vector<Received> got = recorder().Take();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].text, "block");
  EXPECT_EQ(got[1].text, "after");  // the callback registered before the reset still receives
}

TEST_F(EngineEvents, ShutdownDeliversWhatIsQueuedAndLeavesNoThread) {
  const int before = ProcessThreads();
  for (int i = 0; i < 50; ++i) {
    ktsim_deliver(KTSIM_AUDIO, "x");
    ktsim_deliver(KTSIM_VIDEO, "y");
  }
  EXPECT_EQ(ktsim_threads_running(), 2);
  EXPECT_EQ(ProcessThreads(), before + 2);
  ktsim_shutdown();
  EXPECT_EQ(recorder().Snapshot().size(), 100u);
  EXPECT_EQ(ktsim_threads_running(), 0);
  EXPECT_EQ(ProcessThreads(), before);  // joined, not merely told to stop

  ktsim_deliver_sync(KTSIM_AUDIO, "again");  // a later delivery starts the thread again
  EXPECT_EQ(recorder().Snapshot().size(), 101u);
}

TEST_F(EngineCalls, CallLogRecordsEveryCallWithItsArguments) {
  char buffer[16];
  static const char sound[4] = {1, 2, 3, 4};
  const std::string sound_address =
      std::to_string(reinterpret_cast<uintptr_t>(static_cast<const void*>(sound)));

  AudioConnect("rtsp://s:46000/kt.sdp/4/m", "auto", "", "Ann", "uuid", "key", "AES256", 0, 1, 0);
  VideoConnect(nullptr, "auto", "", "Ann", "uuid", "key", "AES256", -5, 1, 2147483647);
  AudioSetRoot("<audio>x</audio>");
  VideoSetRoot(nullptr);
  AudioGetLastError(buffer, 1024);
  VideoGetLastError(nullptr, 0);
  AudioGetState();
  VideoGetState();
  AudioSetTraceLevel(3);
  VideoSetTraceLevel(-1);
  AudioTraceOutputHistory("hist");
  VideoTraceOutputHistory(nullptr);
  AudioTraceSetMessageCallback(AudioTrace);
  VideoTraceSetMessageCallback(nullptr);
  AudioPlaySound(sound, 512, "");
  AudioPlaySound(nullptr, 0, nullptr);
  AudioStopSound(sound);
  VideoSetDeviceOrientation(90);
  VideoFrameReady("s1");  // counted, not logged
  AudioSetCallback(nullptr);
  VideoSetCallback(VideoEvent);
  AudioDisconnect(0);
  VideoDisconnect(7);

  const std::vector<std::string> expected = {
      "AudioConnect\trtsp://s:46000/kt.sdp/4/m\tauto\t\tAnn\tuuid\tkey\tAES256\t0\t1\t0",
      "VideoConnect\t(null)\tauto\t\tAnn\tuuid\tkey\tAES256\t-5\t1\t2147483647",
      "AudioSetRoot\t<audio>x</audio>",
      "VideoSetRoot\t(null)",
      "AudioGetLastError\t1024",
      "VideoGetLastError\t0",
      "AudioGetState",
      "VideoGetState",
      "AudioSetTraceLevel\t3",
      "VideoSetTraceLevel\t-1",
      "AudioTraceOutputHistory\thist",
      "VideoTraceOutputHistory\t(null)",
      "AudioTraceSetMessageCallback\tset",
      "VideoTraceSetMessageCallback\tnull",
      "AudioPlaySound\t" + sound_address + "\t512\t",
      "AudioPlaySound\t0\t0\t(null)",
      "AudioStopSound\t" + sound_address,
      "VideoSetDeviceOrientation\t90",
      "AudioSetCallback\tnull",
      "VideoSetCallback\tset",
      "AudioDisconnect\t0",
      "VideoDisconnect\t7",
  };
  EXPECT_EQ(CallLog(), expected);

  // Entries are cut to fit the caller's buffer; the full length is returned.
  char small[6];
  EXPECT_EQ(ktsim_log_entry(2, small, sizeof small), 29);
  EXPECT_STREQ(small, "Audio");
  EXPECT_EQ(ktsim_log_entry(expected.size(), small, sizeof small), -1);
  ktsim_log_clear();
  EXPECT_EQ(ktsim_log_count(), 0u);
}

TEST_F(EngineCalls, GetLastErrorCopiesAtMostSizeMinusOneBytes) {
  struct Case {
    const char* error;
    int size;
    int result;
    const char* written;  // nullptr: the buffer is untouched
  };
  const Case cases[] = {
      {"Unsupported element", 1024, 19, "Unsupported element"},
      {"Unsupported element", 20, 19, "Unsupported element"},
      {"Unsupported element", 19, 18, "Unsupported elemen"},
      {"Unsupported element", 2, 1, "U"},
      {"Unsupported element", 1, 0, nullptr},
      {"Unsupported element", 0, 0, nullptr},
      {"Unsupported element", -4, 0, nullptr},
      {"", 1024, 0, nullptr},
      {nullptr, 1024, 0, nullptr},
  };
  for (const Case& c : cases) {
    for (ktsim_engine engine : {KTSIM_AUDIO, KTSIM_VIDEO}) {
      ktsim_set_last_error(engine, c.error);
      char buffer[1024];
      std::memset(buffer, '#', sizeof buffer);
      const int result = engine == KTSIM_AUDIO ? AudioGetLastError(buffer, c.size)
                                               : VideoGetLastError(buffer, c.size);
      SCOPED_TRACE(std::string(c.error ? c.error : "(null)") + " size " + std::to_string(c.size));
      EXPECT_EQ(result, c.result);
      if (c.written) {
        EXPECT_STREQ(buffer, c.written);
      } else {
        EXPECT_EQ(buffer[0], '#');
      }
    }
  }
}

TEST_F(EngineCalls, AnswersFollowTheSettingsUntilReset) {
  auto connect = [](ktsim_engine engine) {
    return engine == KTSIM_AUDIO ? AudioConnect("u", "auto", "", "n", "i", "k", "c", 0, 1, 0)
                                 : VideoConnect("u", "auto", "", "n", "i", "k", "c", 0, 1, 0);
  };
  EXPECT_TRUE(connect(KTSIM_AUDIO));
  EXPECT_TRUE(VideoSetRoot("<video/>"));
  EXPECT_STREQ(AudioGetState(), "");

  ktsim_set_connect_result(KTSIM_VIDEO, false);
  ktsim_set_setroot_result(KTSIM_AUDIO, false);
  ktsim_set_state(KTSIM_VIDEO, "<video><inputs/></video>");
  ktsim_set_sound_result(false);
  ktsim_set_frame_ready("s1", 1);
  EXPECT_TRUE(connect(KTSIM_AUDIO));
  EXPECT_FALSE(connect(KTSIM_VIDEO));
  EXPECT_FALSE(AudioSetRoot("<audio/>"));
  EXPECT_TRUE(VideoSetRoot("<video/>"));
  const char* state = VideoGetState();
  EXPECT_STREQ(state, "<video><inputs/></video>");
  EXPECT_STREQ(AudioGetState(), "");
  static const char sound[1] = {0};
  EXPECT_FALSE(AudioPlaySound(sound, 1, ""));
  EXPECT_FALSE(AudioStopSound(sound));

  // Frame answers and poll counts per stream.
  EXPECT_EQ(VideoFrameReady("s1"), 1);
  EXPECT_EQ(VideoFrameReady("s1"), 1);
  EXPECT_EQ(VideoFrameReady("s2"), 0);
  ktsim_set_frame_ready("s1", 0);
  EXPECT_EQ(VideoFrameReady("s1"), 0);
  EXPECT_EQ(ktsim_frame_polls("s1"), 3u);
  EXPECT_EQ(ktsim_frame_polls("s2"), 1u);
  EXPECT_EQ(ktsim_frame_polls("s3"), 0u);
  EXPECT_EQ(ktsim_frame_polls(nullptr), 4u);

  // Trace settings.
  EXPECT_EQ(ktsim_trace_level(KTSIM_AUDIO), -1);
  AudioSetTraceLevel(5);
  VideoTraceOutputHistory("history text");
  EXPECT_EQ(ktsim_trace_level(KTSIM_AUDIO), 5);
  EXPECT_EQ(ktsim_trace_level(KTSIM_VIDEO), -1);
  char history[8];
  EXPECT_EQ(ktsim_trace_history(KTSIM_VIDEO, history, sizeof history), 12);
  EXPECT_STREQ(history, "history");

  // A state document handed out earlier stays readable after it was replaced.
  ktsim_set_state(KTSIM_VIDEO, "<video/>");
  EXPECT_STREQ(state, "<video><inputs/></video>");

  ktsim_reset();
  EXPECT_TRUE(connect(KTSIM_VIDEO));
  EXPECT_TRUE(AudioSetRoot("<audio/>"));
  EXPECT_STREQ(VideoGetState(), "");
  EXPECT_TRUE(AudioPlaySound(sound, 1, ""));
  EXPECT_EQ(VideoFrameReady("s1"), 0);
  EXPECT_EQ(ktsim_frame_polls(nullptr), 1u);
  EXPECT_EQ(ktsim_trace_level(KTSIM_AUDIO), -1);
  EXPECT_EQ(ktsim_trace_history(KTSIM_VIDEO, history, sizeof history), 0);
}

}  // namespace
}  // namespace simtest
