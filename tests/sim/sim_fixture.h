// Shared helpers of the simulated-engine tests: a recorder behind the engines' plain C callbacks
// and a fixture that leaves nothing running.
#ifndef CONVOKE_TESTS_SIM_SIM_FIXTURE_H
#define CONVOKE_TESTS_SIM_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ktsim/ktengine.h"
#include "ktsim/ktsim.h"

namespace simtest {

struct Received {
  ktsim_engine engine;
  std::thread::id thread;
  std::string text;
};

// Everything the engines delivered, in order of arrival. Thread-safe.
class Recorder {
 public:
  static Recorder& Get();

  void Add(ktsim_engine engine, const char* text);
  std::vector<Received> Take();
  std::vector<Received> Snapshot() const;
  void Clear();
  // Waits (up to `limit`) until `done` holds for what was received; returns whether it did.
  bool WaitUntil(const std::function<bool(const std::vector<Received>&)>& done,
                 std::chrono::milliseconds limit = std::chrono::seconds(10));

  // Runs inside the callbacks, after recording (set by a test, cleared by the fixture).
  std::function<void(ktsim_engine, const std::string&)> hook;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

void AudioEvent(void* context, const char* xml);
void VideoEvent(void* context, const char* xml);
void AudioTrace(unsigned int level, const char* text);
void VideoTrace(unsigned int level, const char* text);

// The call log as strings.
std::vector<std::string> CallLog();
// Number of threads of this process (Linux: entries of /proc/self/task).
int ProcessThreads();

// Manual control: reset, both callbacks registered, nothing left running at the end.
class SimTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  Recorder& recorder() { return Recorder::Get(); }
};

}  // namespace simtest

#endif  // CONVOKE_TESTS_SIM_SIM_FIXTURE_H
