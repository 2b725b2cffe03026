// Test harness for the host C API: records every host callback, drives the simulated engines and
// leaves nothing running at the end of each test.
#ifndef CONVOKE_TESTS_CAPI_HARNESS_H
#define CONVOKE_TESTS_CAPI_HARNESS_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "convoke/convoke.h"
#include "ktsim/ktsim.h"

namespace convoke_test {

// Everything the host's callbacks saw, as "slotName:arg1:arg2..." lines, in order.
class Recorder {
 public:
  static Recorder& instance();
  void add(std::string line);
  std::vector<std::string> lines() const;
  std::vector<std::string> matching(const std::string& prefix) const;
  // Waits up to `timeout` (generous: only a broken run reaches it) for at least `count` lines
  // starting with prefix.
  bool waitFor(const std::string& prefix, std::size_t count,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  void clear();

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

// Registers a recording callback in every slot (13 included, to prove it is never called).
void registerAllCallbacks();

// The engine call log, one entry per call.
std::vector<std::string> engineLog();
// Entries of the engine call log that start with prefix.
std::vector<std::string> engineCalls(const std::string& prefix);

// Delivers an event document on the engine's thread and waits for its callback to return.
inline void audioEvent(const std::string& xml) { ktsim_deliver_sync(KTSIM_AUDIO, xml.c_str()); }
inline void videoEvent(const std::string& xml) { ktsim_deliver_sync(KTSIM_VIDEO, xml.c_str()); }

std::string audioSiteChanged(const std::string& streamId, const std::string& site,
                             const std::string& email);
std::string videoSiteChanged(const std::string& streamId, const std::string& email,
                             const std::string& name, bool local, int width, int height,
                             const std::string& extra = "");

// Lets every frame poller take a few more turns: a witness stream, polled like the others,
// reports `turns` more frames through the recording callback. A stream whose poller still ran has
// had the same chances to report a frame meanwhile.
void letFramePollersTurn(std::size_t turns = 3);

// Joins "srv"/"room" as "Ann" with the given participant UUID; returns the completion's result.
bool join(const std::string& uuid = "ann@example.com", const std::string& key = "key");
// Number of completion calls and the last result, for the join tests.
int completionCalls();
bool lastCompletion();

// Each test starts from a clean session and engines and ends with nothing running.
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

}  // namespace convoke_test

#endif  // CONVOKE_TESTS_CAPI_HARNESS_H
