#include "simulation.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "exit_guard.h"
#include "meeting.h"

namespace ktsim {

Simulation& Simulation::Get() {
  static Simulation* const simulation = new Simulation();  // never destroyed, see the class comment
  return *simulation;
}

void Simulation::Log(std::string entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  log_.push_back(std::move(entry));
}

size_t Simulation::LogCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return log_.size();
}

long Simulation::LogEntry(size_t index, char* buffer, size_t size) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (index >= log_.size()) return -1;
  const std::string& entry = log_[index];
  if (buffer != nullptr && size > 0) {
    const size_t n = entry.size() < size - 1 ? entry.size() : size - 1;
    std::memcpy(buffer, entry.data(), n);
    buffer[n] = '\0';
  }
  return static_cast<long>(entry.size());
}

void Simulation::LogClear() {
  std::lock_guard<std::mutex> lock(mutex_);
  log_.clear();
}

EngineSettings Simulation::Settings(ktsim_engine engine) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return settings_[Index(engine)];
}

const char* Simulation::Keep(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  return documents_.insert(text).first->c_str();
}

void Simulation::SetFrameReady(const std::string& stream_id, int ready) {
  std::lock_guard<std::mutex> lock(mutex_);
  frame_ready_[stream_id] = ready;
}

bool Simulation::PollFrame(const std::string& stream_id, int* forced) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++polls_[stream_id];
  ++total_polls_;
  auto it = frame_ready_.find(stream_id);
  if (it == frame_ready_.end()) return false;
  *forced = it->second;
  return true;
}

unsigned long Simulation::FramePolls(const char* stream_id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stream_id == nullptr) return total_polls_;
  auto it = polls_.find(stream_id);
  return it == polls_.end() ? 0 : it->second;
}

void Simulation::Reset() {
  Meeting::Get().Reset();
  queues_[0].Discard();
  queues_[1].Discard();
  std::lock_guard<std::mutex> lock(mutex_);
  for (EngineSettings& settings : settings_) settings = EngineSettings();
  log_.clear();
  frame_ready_.clear();
  polls_.clear();
  total_polls_ = 0;
}

void Simulation::Shutdown() {
  queues_[0].Stop();
  queues_[1].Stop();
}

void Simulation::Exit() {
  Meeting::Get().End();
  // A callback still running after this long is stuck; its thread is left to the process's end.
  queues_[0].Exit(std::chrono::milliseconds(2000));
  queues_[1].Exit(std::chrono::milliseconds(2000));
}

std::string Text(const char* text) { return text == nullptr ? "(null)" : text; }

namespace {

void ExitHandler() { Simulation::Get().Exit(); }

// The last line of defence, for a process that never delivered an event: destroyed after every
// static object constructed later than libktsim's own.
struct ExitAtUnload {
  ~ExitAtUnload() { ExitHandler(); }
} exit_at_unload;

// What the exit guard (armed by the event queues' first delivery) runs at exit.
[[maybe_unused]] const bool exit_action_set = (ktengine::SetExitAction(ExitHandler), true);

}  // namespace

}  // namespace ktsim
