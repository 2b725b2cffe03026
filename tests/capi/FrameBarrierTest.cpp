// Leaving is a barrier for frames: once exitMeeting, disableVideoStream or
// pauseVideoFrameProcessing returns on one thread, no frame callback of the stopped streams runs
// or begins, even when one was running on the stream's timer thread at the time.
#include <atomic>

#include <string>

#include "Harness.h"
#include "common/WaitUntil.h"

namespace convoke_test {
namespace {

using namespace std::chrono_literals;

std::atomic<int> gInside{0};
std::atomic<int> gFrames{0};
std::atomic<int> gWitnessFrames{0};
std::atomic<bool> gSlow{false};

// Frames of v1 are slow while gSlow is set; a witness stream's frames only count.
void slowFrame(const char* id, void*) {
  if (std::string(id) != "v1") {
    gWitnessFrames.fetch_add(1);
    return;
  }
  gInside.fetch_add(1);
  gFrames.fetch_add(1);
  if (gSlow.load()) std::this_thread::sleep_for(150ms);
  gInside.fetch_sub(1);
}

class FrameBarrierTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    gInside.store(0);
    gFrames.store(0);
    gSlow.store(true);
    SetDelegateCallback(DelegateCallbackSlotVideoFrameReady, reinterpret_cast<void*>(slowFrame));
    ASSERT_TRUE(join());
    videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 64, 36));
  }
  void render() {
    ktsim_set_frame_ready("v1", 1);
    videoEvent(
        "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" pixel_buffer=\"3\"/></event>");
  }
  // Waits until a frame callback is running, then calls `leave` from this thread and checks that
  // none runs at its return nor begins while a witness stream's poller takes three more turns.
  void expectBarrier(void (*leave)()) {
    ASSERT_TRUE(convoke_test_support::waitUntil([] { return gInside.load() != 0; }));
    ASSERT_EQ(gInside.load(), 1);
    leave();
    EXPECT_EQ(gInside.load(), 0);
    const int frames = gFrames.load();
    ktsim_set_frame_ready("witness", 1);
    videoEvent(
        "<event name=\"video_stream_buffer_ready\"><stream id=\"witness\" pixel_buffer=\"1\"/>"
        "</event>");
    const int witnessed = gWitnessFrames.load();
    ASSERT_TRUE(
        convoke_test_support::waitUntil([&] { return gWitnessFrames.load() >= witnessed + 3; }));
    EXPECT_EQ(gFrames.load(), frames);
  }
};

TEST_F(FrameBarrierTest, ExitDisableAndPauseWaitForTheRunningFrameCallback) {
  render();
  expectBarrier([] { exitMeeting(); });

  ASSERT_TRUE(join());
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 64, 36));
  render();
  expectBarrier([] { disableVideoStream("v1"); });

  render();
  expectBarrier([] { pauseVideoFrameProcessing("v1"); });
  // A resume starts the frames again; fast callbacks stop at once.
  gSlow.store(false);
  const int frames = gFrames.load();
  resumeVideoFrameProcessing("v1");
  EXPECT_TRUE(convoke_test_support::waitUntil([&] { return gFrames.load() > frames; }));
}

}  // namespace
}  // namespace convoke_test
