// The state both simulated engines share: their event threads, what they answer, and the call log.
#ifndef KTSIM_SIMULATION_H
#define KTSIM_SIMULATION_H

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "event_queue.h"
#include "ktsim/ktsim.h"

namespace ktsim {

using ktengine::EventQueue;

// What one engine answers. Plain value; guarded by Simulation::mutex_.
struct EngineSettings {
  bool connect_ok = true;
  bool setroot_ok = true;
  std::string last_error;
  bool state_set = false;  // ktsim_set_state was called: its document wins over the scripted one
  const char* state = "";  // points into Simulation::documents_
  int trace_level = -1;
  std::string trace_history;
  bool sound_ok = true;  // audio only: what PlaySound and StopSound answer
  int orientation = 0;   // video only: the last VideoSetDeviceOrientation
};

// The process-wide simulation. Created on first use and never destroyed (threads of the product
// may still call the engines while the process exits). Thread safety: every member may be called
// from any thread; mutex_ is never held while a callback of the product runs.
class Simulation {
 public:
  static Simulation& Get();

  EventQueue& queue(ktsim_engine engine) { return queues_[engine == KTSIM_VIDEO ? 1 : 0]; }

  // The call log.
  void Log(std::string entry);
  size_t LogCount() const;
  long LogEntry(size_t index, char* buffer, size_t size) const;
  void LogClear();

  // Settings: a copy, and an update under the lock.
  EngineSettings Settings(ktsim_engine engine) const;
  template <typename F>
  void Update(ktsim_engine engine, F&& change) {
    std::lock_guard<std::mutex> lock(mutex_);
    change(settings_[Index(engine)]);
  }
  // Keeps `text` for the rest of the process and returns a pointer to the kept copy, so that a
  // document handed out by GetState stays readable whatever is set afterwards.
  const char* Keep(const std::string& text);

  // VideoFrameReady answers and poll counts.
  void SetFrameReady(const std::string& stream_id, int ready);
  // Counts the poll; returns true with the forced answer when ktsim_set_frame_ready set one.
  bool PollFrame(const std::string& stream_id, int* forced);
  unsigned long FramePolls(const char* stream_id) const;

  // ktsim_reset: queues emptied, log and counters cleared, settings back to their defaults.
  void Reset();
  // Stops both event threads after they delivered what is queued.
  void Shutdown();
  // For process exit: discards what is queued and ends the threads.
  void Exit();

 private:
  Simulation() = default;
  static int Index(ktsim_engine engine) { return engine == KTSIM_VIDEO ? 1 : 0; }

  EventQueue queues_[2];

  mutable std::mutex mutex_;
  EngineSettings settings_[2];                  // GUARDED_BY(mutex_)
  std::vector<std::string> log_;                // GUARDED_BY(mutex_)
  std::set<std::string> documents_;             // GUARDED_BY(mutex_); never shrinks
  std::map<std::string, int> frame_ready_;      // GUARDED_BY(mutex_)
  std::map<std::string, unsigned long> polls_;  // GUARDED_BY(mutex_)
  unsigned long total_polls_ = 0;               // GUARDED_BY(mutex_)
};

// Helpers for call-log entries.
std::string Text(const char* text);  // NULL as "(null)"

}  // namespace ktsim

#endif  // KTSIM_SIMULATION_H
