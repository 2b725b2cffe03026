// Frame timer tasks: registration, replacement, stop-then-erase and pause/resume, with a recording
// delegate and the simulated video engine's frame switch.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "ktsim/ktsim.h"
#include "meeting/Convoke.h"
#include "meeting/QuietDelegate.h"
#include "meeting/VideoEvents.h"
#include "meeting/VideoTimerTask.h"

namespace Telmora {
namespace {

using namespace std::chrono_literals;

// Records frames and log lines; every other notification is ignored.
class RecordingDelegate : public QuietDelegate {
 public:
  void videoStreamBufferReady(std::string id, void* buffer) override {
    std::lock_guard<std::mutex> lock(mutex);
    buffers.push_back(id + ":" + std::to_string(reinterpret_cast<uintptr_t>(buffer)));
  }
  void videoFrameReady(std::string id, void* buffer) override {
    std::lock_guard<std::mutex> lock(mutex);
    frames.push_back(id + ":" + std::to_string(reinterpret_cast<uintptr_t>(buffer)));
  }
  void logMessage(unsigned int level, const std::string& text) override {
    std::lock_guard<std::mutex> lock(mutex);
    logs.push_back(std::to_string(level) + " " + text);
  }

  std::size_t frameCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return frames.size();
  }
  bool logged(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const std::string& line : logs) {
      if (line == "6 " + text) return true;
    }
    return false;
  }

  std::mutex mutex;
  std::vector<std::string> frames;
  std::vector<std::string> buffers;
  std::vector<std::string> logs;
};

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 4000ms) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

class TimerTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ktsim_reset();
    Convoke::sharedInstance()->setDelegate(&delegate);
  }
  void TearDown() override {
    VideoEvents::sharedInstance()->stopTasks();
    // Every worker ends within its 2-second wait.
    EXPECT_TRUE(waitUntil([] { return VideoTimerTask::runningThreads() == 0; }));
    Convoke::sharedInstance()->setDelegate(nullptr);
    ktsim_reset();
  }
  void bufferReady(const std::string& id, const std::string& handle) {
    ktsim_deliver_sync(KTSIM_VIDEO, ("<event name=\"video_stream_buffer_ready\"><stream id=\"" +
                                     id + "\" pixel_buffer=\"" + handle + "\"/></event>")
                                        .c_str());
  }
  RecordingDelegate delegate;
};

TEST_F(TimerTaskTest, ReadyFramesReachTheDelegateWithTheFirstBufferHandle) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  bufferReady("v1", "8");  // keeps the first task and its handle
  const std::size_t announced = delegate.frameCount();
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= announced + 3; }));
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 1u);
  std::lock_guard<std::mutex> lock(delegate.mutex);
  // Both announcements reached the host with their own handle...
  EXPECT_EQ(delegate.buffers, (std::vector<std::string>{"v1:7", "v1:8"}));
  // ...and every frame, before and after the second one, carries the first.
  ASSERT_GE(delegate.frames.size(), announced + 3);
  for (const std::string& frame : delegate.frames) EXPECT_EQ(frame, "v1:7");
}

// Frame callbacks and polls of stream v1 per second, over `window`.
struct Rates {
  double frames;
  double polls;
};
Rates ratesOf(RecordingDelegate& delegate, std::chrono::milliseconds window = 1000ms) {
  const std::size_t frames = delegate.frameCount();
  const unsigned long polls = ktsim_frame_polls("v1");
  std::this_thread::sleep_for(window);
  const double seconds = window.count() / 1000.0;
  return {(delegate.frameCount() - frames) / seconds, (ktsim_frame_polls("v1") - polls) / seconds};
}

// About 30 per second, one frame per poll; the bounds only catch a stalled or a second poller.
void expectOnePoller(const Rates& rates, const char* when) {
  EXPECT_GT(rates.polls, 15.0) << when;
  EXPECT_LT(rates.polls, 45.0) << when;
  EXPECT_LE(rates.frames, rates.polls + 1) << when;
  EXPECT_GT(rates.frames, 15.0) << when;
}

TEST_F(TimerTaskTest, AStreamKeepsOnePollerThroughReannouncementsPausesAndReEnables) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  const Rates alone = ratesOf(delegate);
  expectOnePoller(alone, "alone");
  RecordProperty("frames_per_s_alone", std::to_string(alone.frames));

  for (int i = 0; i < 20; ++i) bufferReady("v1", "7");
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  const Rates reannounced = ratesOf(delegate);
  expectOnePoller(reannounced, "after 20 re-announcements");
  RecordProperty("frames_per_s_after_20_reannouncements", std::to_string(reannounced.frames));

  for (int i = 0; i < 20; ++i) {
    Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
    Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  }
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  const Rates resumed = ratesOf(delegate);
  expectOnePoller(resumed, "after 20 pause/resume pairs");
  RecordProperty("frames_per_s_after_20_pause_resume_pairs", std::to_string(resumed.frames));

  // A resume after the thread has logged its stop re-arms the same thread.
  Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
  ASSERT_TRUE(
      waitUntil([&] { return delegate.logged("Convoke: TimerTask: Stopped for streamID v1"); }));
  Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  expectOnePoller(ratesOf(delegate), "after a late resume");

  // Disable/enable cycles: a stopped task's thread polls no more while it waits out its stop.
  for (int i = 0; i < 20; ++i) {
    VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
    bufferReady("v1", "7");
  }
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 1u);
  expectOnePoller(ratesOf(delegate), "after 20 disable/enable cycles");
  // The stopped ones end within their wait; the registered one goes on alone.
  EXPECT_TRUE(waitUntil([] { return VideoTimerTask::runningThreads() == 1; }));
}

TEST_F(TimerTaskTest, StopThenEraseEndsTheThreadWithoutAnotherFrame) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
  ASSERT_TRUE(
      waitUntil([&] { return delegate.logged("Convoke: TimerTask: Stopped for streamID v1"); }));
  const std::size_t frames = delegate.frameCount();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(delegate.frameCount(), frames);
  EXPECT_TRUE(delegate.logged("Convoke: TimerTask: Stopping TimerTask for streamID v1"));
  VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
  EXPECT_TRUE(
      delegate.logged("Convoke: stopTaskForStreamId:  Could not find timer task for streamId: v1"));
}

TEST_F(TimerTaskTest, PauseAndResumeTheRegisteredTask) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
  std::this_thread::sleep_for(100ms);
  const std::size_t paused = delegate.frameCount();
  std::this_thread::sleep_for(150ms);
  EXPECT_EQ(delegate.frameCount(), paused);
  Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  EXPECT_TRUE(waitUntil([&] { return delegate.frameCount() > paused; }));
  Convoke::sharedInstance()->pauseVideoFrameProcessing("unknown");  // nothing happens
}

TEST_F(TimerTaskTest, ATaskThatIsNotTheRegisteredOneEndsAtItsNextFrame) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  VideoTimerTask stray("v1", 9);
  stray.run();
  ASSERT_TRUE(waitUntil([&] {
    std::lock_guard<std::mutex> lock(delegate.mutex);
    for (const std::string& line : delegate.logs) {
      if (line.find(" is no longer the registered timer for streamID v1") != std::string::npos) {
        return true;
      }
    }
    return false;
  }));
  std::lock_guard<std::mutex> lock(delegate.mutex);
  for (const std::string& frame : delegate.frames) EXPECT_EQ(frame, "v1:7");
}

TEST_F(TimerTaskTest, NoFrameMeansNoCallbackButThePollingGoesOn) {
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([] { return ktsim_frame_polls("v1") >= 3; }));
  EXPECT_EQ(delegate.frameCount(), 0u);
}

TEST_F(TimerTaskTest, ExitMeetingStopsEveryTask) {
  ktsim_set_frame_ready("v1", 1);
  ktsim_set_frame_ready("v2", 1);
  bufferReady("v1", "1");
  bufferReady("v2", "2");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 2; }));
  Convoke::sharedInstance()->exitMeeting();
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 0u);
  std::this_thread::sleep_for(100ms);
  const std::size_t frames = delegate.frameCount();
  std::this_thread::sleep_for(150ms);
  EXPECT_EQ(delegate.frameCount(), frames);
}

// An engine thread still announcing a buffer while the host leaves starts no task afterwards; an
// announcement after the leave starts its task as usual.
TEST_F(TimerTaskTest, ABufferAnnouncedDuringALeaveStartsNoTask) {
  struct Gate : RecordingDelegate {
    void videoStreamBufferReady(std::string id, void* buffer) override {
      RecordingDelegate::videoStreamBufferReady(id, buffer);
      if (!held) return;
      held = false;
      entered.set_value();
      release.wait();
    }
    bool held = true;
    std::promise<void> entered;
    std::shared_future<void> release;
  } gate;
  std::promise<void> open;
  gate.release = open.get_future().share();
  Convoke::sharedInstance()->setDelegate(&gate);
  ktsim_set_frame_ready("v1", 1);

  std::thread engine([] {
    videoCallback(nullptr,
                  "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" pixel_buffer=\"5\"/>"
                  "</event>");
  });
  gate.entered.get_future().wait();
  Convoke::sharedInstance()->exitMeeting();
  open.set_value();
  engine.join();
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 0u);
  std::this_thread::sleep_for(150ms);
  EXPECT_EQ(gate.frameCount(), 0u);

  bufferReady("v1", "6");
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 1u);
  EXPECT_TRUE(waitUntil([&] { return gate.frameCount() >= 1; }));
  VideoEvents::sharedInstance()->stopTasks();
  Convoke::sharedInstance()->setDelegate(&delegate);
}

TEST_F(TimerTaskTest, LoggingReachesTheDelegateAtLevelSix) {
  Convoke::sharedInstance()->enableAudioInput("");
  ktsim_deliver_sync(KTSIM_AUDIO, "<event name=\"nope\"/>");
  ktsim_deliver_sync(KTSIM_AUDIO, "<event/>");
  ktsim_deliver_sync(KTSIM_VIDEO, "<event/>");
  EXPECT_TRUE(delegate.logged("Convoke: audioCallback: unhandled event name: nope"));
  EXPECT_TRUE(delegate.logged("audioCallback, can't find event name"));
  EXPECT_TRUE(delegate.logged("Convoke: videoCallback, can't find event name"));
}

}  // namespace
}  // namespace Telmora
