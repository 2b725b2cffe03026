// Frame timer tasks: the CPU cost of 100 polled streams, and the delay from a frame becoming ready
// in the engine to the host's videoFrameReady. Runs in real time for a few seconds.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ktsim/ktsim.h"
#include "meeting/Convoke.h"
#include "meeting/QuietDelegate.h"
#include "meeting/VideoEvents.h"
#include "meeting/VideoTimerTask.h"

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<long long> gFirstFrameNs{0};
std::atomic<unsigned long> gFrames{0};

class FrameDelegate : public Telmora::QuietDelegate {
 public:
  void videoFrameReady(std::string, void*) override {
    gFrames.fetch_add(1);
    long long expected = 0;
    gFirstFrameNs.compare_exchange_strong(
        expected,
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count());
  }
};

FrameDelegate gDelegate;

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void startStreams(int n) {
  for (int i = 0; i < n; ++i) {
    const std::string event = "<event name=\"video_stream_buffer_ready\"><stream id=\"s" +
                              std::to_string(i) + "\" pixel_buffer=\"" + std::to_string(i + 1) +
                              "\"/></event>";
    videoCallback(nullptr, event.c_str());
  }
}

void stopAll() {
  Telmora::VideoEvents::sharedInstance()->stopTasks();
  while (Telmora::VideoTimerTask::runningThreads() > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

// CPU of 100 polled streams over 3 s. Argument 0: no frame is ever ready (the engine call is the
// only work of a pass); 1: every poll finds a frame, which then reaches the delegate.
void BM_PollHundredStreams(benchmark::State& state) {
  ktsim_reset();
  Telmora::Convoke::sharedInstance()->setDelegate(&gDelegate);
  const bool framesReady = state.range(0) != 0;
  for (auto _ : state) {
    if (framesReady) {
      for (int i = 0; i < 100; ++i) ktsim_set_frame_ready(("s" + std::to_string(i)).c_str(), 1);
    }
    startStreams(100);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // every thread is polling
    const unsigned long polls0 = ktsim_frame_polls(nullptr);
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const double cpu = cpuSeconds() - cpu0;
    const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    const double polls = static_cast<double>(ktsim_frame_polls(nullptr) - polls0);
    state.counters["cpu_percent_of_one_core"] = 100.0 * cpu / wall;
    state.counters["polls_per_stream_per_s"] = polls / 100.0 / wall;
    // CPU time of the whole process per wake-up of a timer thread (the bench's own main thread
    // only sleeps).
    state.counters["us_per_wakeup"] = polls > 0 ? 1e6 * cpu / polls : 0.0;
    stopAll();
  }
  Telmora::Convoke::sharedInstance()->setDelegate(nullptr);
}
BENCHMARK(BM_PollHundredStreams)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

// Delay from "frame ready" in the engine to the host's callback, over 30 frames on one stream.
void BM_FrameReadyToCallback(benchmark::State& state) {
  ktsim_reset();
  Telmora::Convoke::sharedInstance()->setDelegate(&gDelegate);
  startStreams(1);
  double total = 0, worst = 0;
  int samples = 0;
  for (auto _ : state) {
    for (int i = 0; i < 30; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(7 * (i % 5) + 3));
      gFirstFrameNs.store(0);
      const auto t0 = Clock::now();
      ktsim_set_frame_ready("s0", 1);
      while (gFirstFrameNs.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
      ktsim_set_frame_ready("s0", 0);
      const double ms =
          (gFirstFrameNs.load() -
           std::chrono::duration_cast<std::chrono::nanoseconds>(t0.time_since_epoch()).count()) /
          1e6;
      total += ms;
      worst = ms > worst ? ms : worst;
      ++samples;
    }
  }
  state.counters["mean_delay_ms"] = total / samples;
  state.counters["worst_delay_ms"] = worst;
  stopAll();
  Telmora::Convoke::sharedInstance()->setDelegate(nullptr);
}
BENCHMARK(BM_FrameReadyToCallback)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
