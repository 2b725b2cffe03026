// Leaving is a barrier for frames: once exitMeeting, disableVideoStream or
// pauseVideoFrameProcessing returns on one thread, no frame callback of the stopped streams runs
// or begins, even when one was running on the stream's timer thread at the time.
#include <atomic>

#include "Harness.h"

namespace convoke_test {
namespace {

using namespace std::chrono_literals;

std::atomic<int> gInside{0};
std::atomic<int> gFrames{0};
std::atomic<bool> gSlow{false};

void slowFrame(const char*, void*) {
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
  // none runs at its return nor begins during the next 200 ms.
  void expectBarrier(void (*leave)()) {
    const auto until = std::chrono::steady_clock::now() + 3s;
    while (gInside.load() == 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(gInside.load(), 1);
    leave();
    EXPECT_EQ(gInside.load(), 0);
    const int frames = gFrames.load();
    std::this_thread::sleep_for(200ms);
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
  resumeVideoFrameProcessing("v1");
  const auto until = std::chrono::steady_clock::now() + 3s;
  const int frames = gFrames.load();
  while (gFrames.load() == frames && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_GT(gFrames.load(), frames);
}

}  // namespace
}  // namespace convoke_test
