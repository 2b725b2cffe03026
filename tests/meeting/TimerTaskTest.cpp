// Frame timer tasks: registration, replacement, stop-then-erase and pause/resume, with a recording
// delegate and the simulated video engine's frame switch.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "common/WaitUntil.h"
#include "ktsim/ktsim.h"
#include "meeting/Convoke.h"
#include "meeting/QuietDelegate.h"
#include "meeting/VideoEvents.h"
#include "meeting/VideoTimerTask.h"

namespace Telmora {
namespace {

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
    frameThreads.push_back(std::this_thread::get_id());
  }
  void logMessage(unsigned int level, const std::string& text) override {
    std::lock_guard<std::mutex> lock(mutex);
    logs.push_back(std::to_string(level) + " " + text);
  }

  std::size_t frameCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return frames.size();
  }
  std::size_t frameCount(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex);
    std::size_t count = 0;
    for (const std::string& frame : frames) count += frame.compare(0, id.size() + 1, id + ":") == 0;
    return count;
  }
  // The threads that reported frames from index `from` on.
  std::set<std::thread::id> threadsSince(std::size_t from) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::set<std::thread::id>(frameThreads.begin() + std::min(from, frameThreads.size()),
                                     frameThreads.end());
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
  std::vector<std::thread::id> frameThreads;
  std::vector<std::string> buffers;
  std::vector<std::string> logs;
};

using convoke_test_support::waitUntil;

class TimerTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ktsim_reset();
    Convoke::sharedInstance()->setDelegate(&delegate);
  }
  void TearDown() override {
    VideoEvents::sharedInstance()->stopTasks();
    // Every worker ends, without waiting out its 2-second stop wait.
    EXPECT_EQ(VideoTimerTask::drainStoppedThreads(), 0);
    Convoke::sharedInstance()->setDelegate(nullptr);
    ktsim_reset();
  }
  void bufferReady(const std::string& id, const std::string& handle) {
    ktsim_deliver_sync(KTSIM_VIDEO, ("<event name=\"video_stream_buffer_ready\"><stream id=\"" +
                                     id + "\" pixel_buffer=\"" + handle + "\"/></event>")
                                        .c_str());
  }
  // Lets every poller take a few more turns: a witness stream, polled like the others, reports
  // `turns` more frames. Afterwards a poller that was still running has had the same chances.
  void letPollersTurn(int turns = 3) {
    ktsim_set_frame_ready("witness", 1);
    bufferReady("witness", "99");  // starts its task, or keeps the running one
    const std::size_t before = delegate.frameCount("witness");
    ASSERT_TRUE(waitUntil([&] { return delegate.frameCount("witness") >= before + turns; }));
  }
  // Waits for `count` more frames and checks that one thread reported all of them.
  void expectOnePoller(std::size_t count, const char* when) {
    const std::size_t from = delegate.frameCount();
    ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= from + count; })) << when;
    EXPECT_EQ(delegate.threadsSince(from).size(), 1u) << when;
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

// Two threads polling one stream both report its frames: ten frames from one thread show that a
// single poller is left, whatever the machine's speed.
TEST_F(TimerTaskTest, AStreamKeepsOnePollerThroughReannouncementsPausesAndReEnables) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  expectOnePoller(10, "alone");

  for (int i = 0; i < 20; ++i) bufferReady("v1", "7");
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  expectOnePoller(10, "after 20 re-announcements");

  for (int i = 0; i < 20; ++i) {
    Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
    Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  }
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  expectOnePoller(10, "after 20 pause/resume pairs");

  // A resume after the thread has logged its stop re-arms the same thread.
  Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
  ASSERT_TRUE(
      waitUntil([&] { return delegate.logged("Convoke: TimerTask: Stopped for streamID v1"); }));
  Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  EXPECT_EQ(VideoTimerTask::runningThreads(), 1);
  expectOnePoller(10, "after a late resume");

  // Disable/enable cycles: a stopped task's thread polls no more while it waits out its stop.
  for (int i = 0; i < 20; ++i) {
    VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
    bufferReady("v1", "7");
  }
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 1u);
  expectOnePoller(10, "after 20 disable/enable cycles");
  // The stopped ones end; the registered one goes on alone.
  EXPECT_EQ(VideoTimerTask::drainStoppedThreads(), 1);
  expectOnePoller(3, "after the drain");
}

TEST_F(TimerTaskTest, StopThenEraseEndsTheThreadWithoutAnotherFrame) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
  ASSERT_TRUE(
      waitUntil([&] { return delegate.logged("Convoke: TimerTask: Stopped for streamID v1"); }));
  const std::size_t frames = delegate.frameCount("v1");
  letPollersTurn();
  EXPECT_EQ(delegate.frameCount("v1"), frames);
  EXPECT_TRUE(delegate.logged("Convoke: TimerTask: Stopping TimerTask for streamID v1"));
  VideoEvents::sharedInstance()->stopTaskForStreamId("v1");
  EXPECT_TRUE(
      delegate.logged("Convoke: stopTaskForStreamId:  Could not find timer task for streamId: v1"));
}

TEST_F(TimerTaskTest, PauseAndResumeTheRegisteredTask) {
  ktsim_set_frame_ready("v1", 1);
  bufferReady("v1", "7");
  ASSERT_TRUE(waitUntil([&] { return delegate.frameCount() >= 1; }));
  // Once the pause returns, no frame begins.
  Convoke::sharedInstance()->pauseVideoFrameProcessing("v1");
  const std::size_t paused = delegate.frameCount("v1");
  letPollersTurn();
  EXPECT_EQ(delegate.frameCount("v1"), paused);
  Convoke::sharedInstance()->resumeVideoFrameProcessing("v1");
  EXPECT_TRUE(waitUntil([&] { return delegate.frameCount("v1") > paused; }));
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
  // It stops itself after that line, as if it had been told to.
  EXPECT_TRUE(waitUntil([&] { return stray.state()->stopped.load(); }));
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
  // Once the leave returns, no frame begins.
  const std::size_t frames = delegate.frameCount();
  letPollersTurn();
  EXPECT_EQ(delegate.frameCount("v1") + delegate.frameCount("v2"), frames);
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

  // The next announcement starts the only poller: every frame carries its handle, none the
  // handle announced during the leave.
  bufferReady("v1", "6");
  EXPECT_EQ(VideoEvents::sharedInstance()->taskCount(), 1u);
  EXPECT_TRUE(waitUntil([&] { return gate.frameCount() >= 3; }));
  {
    std::lock_guard<std::mutex> lock(gate.mutex);
    for (const std::string& frame : gate.frames) EXPECT_EQ(frame, "v1:6");
  }
  VideoEvents::sharedInstance()->stopTasks();
  Convoke::sharedInstance()->setDelegate(&delegate);
}

// A process that ends while frames are polled ends no differently: by the time the library is
// unloaded no timer thread runs, polling or waiting out a stop. The check is an exit handler
// registered before the first timer thread starts, so it runs after the library's own shutdown.
void exitWhileFramesArePolled() {
  std::atexit([] {
    if (VideoTimerTask::runningThreads() != 0) std::_Exit(7);
  });
  Convoke::sharedInstance()->setDelegate(nullptr);
  ktsim_set_frame_ready("v1", 1);
  ktsim_deliver_sync(
      KTSIM_VIDEO,
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" pixel_buffer=\"1\"/></event>");
  ktsim_deliver_sync(
      KTSIM_VIDEO,
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v2\" pixel_buffer=\"2\"/></event>");
  VideoEvents::sharedInstance()->stopTaskForStreamId("v2");  // waits out its stop
  if (!waitUntil([] { return ktsim_frame_polls("v1") >= 2; })) std::_Exit(8);
  std::exit(0);
}

TEST(TimerThreads, NoneIsLeftRunningWhenTheProcessExits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWhileFramesArePolled(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Telmora
