// The open core's entry points: the C functions both open engines forward to (they catch every
// exception, so none reaches the product), the event queues, and the last error of each engine.
// Called on any of the product's threads; Emit also on the worker and GStreamer threads.
#include "core.h"

#include <algorithm>
#include <cstring>

#include "core_private.h"
#include "exit_guard.h"

namespace ktopen {

namespace {

// The event queues arm the exit guard after their first delivery: by then the product's objects
// exist, so leaving the meeting at exit happens before they are destroyed.
[[maybe_unused]] const bool exit_action_set =
    (ktengine::SetExitAction([] { Core::Get().Exit(); }), true);

}  // namespace

uint64_t Core::Emit(EngineId engine, const std::string& xml, uint64_t generation) {
  std::lock_guard<std::mutex> lock(emit_mutex_);
  if (!in_meeting_ || (generation != 0 && generation != generation_)) return 0;
  return queues_[engine].PushEvent(xml);
}

void Core::Trace(EngineId engine, unsigned level, const std::string& text) {
  if (queues_[engine].trace_callback()) queues_[engine].PushTrace(level, text);
}

bool Core::Refuse(EngineId engine, const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_[engine] = why;
  }
  Trace(engine, 2, "refused: " + why);
  return false;
}

int Core::GetLastError(EngineId engine, char* buffer, int size) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string& text = errors_[engine];
  if (text.empty() || !buffer || size <= 0) return 0;
  const size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
  return static_cast<int>(n);
}

// ---- The engines' C functions ------------------------------------------------------------------

namespace core {

void SetCallback(EngineId engine, EngineEventCallback callback) noexcept {
  Core::Get().queue(engine).SetCallback(callback);
}

bool Connect(EngineId engine, const char* url, const char* display_name,
             const char* uuid) noexcept {
  try {
    return Core::Get().Connect(engine, url ? url : "", display_name ? display_name : "",
                               uuid ? uuid : "");
  } catch (...) {
    return Core::Get().Refuse(engine, "Internal error while joining");
  }
}

void Disconnect(EngineId engine) noexcept {
  try {
    Core::Get().Disconnect(engine);
  } catch (...) {
  }
}

bool SetRoot(EngineId engine, const char* xml) noexcept {
  try {
    return Core::Get().SetRoot(engine, xml ? xml : "");
  } catch (...) {
    return Core::Get().Refuse(engine, "Internal error");
  }
}

int GetLastError(EngineId engine, char* buffer, int size) noexcept {
  return Core::Get().GetLastError(engine, buffer, size);
}

const char* GetState(EngineId engine) noexcept {
  try {
    return Core::Get().GetState(engine);
  } catch (...) {
    return "";
  }
}

void SetTraceLevel(EngineId, int) noexcept {}

void TraceSetMessageCallback(EngineId engine, EngineTraceCallback callback) noexcept {
  Core::Get().queue(engine).SetTraceCallback(callback);
}

bool Refuse(EngineId engine, const char* what) noexcept {
  try {
    return Core::Get().Refuse(engine, what);
  } catch (...) {
    return false;
  }
}

int FrameReady(const char* stream_id) noexcept {
  try {
    return stream_id ? Core::Get().FrameReady(stream_id) : 0;
  } catch (...) {
    return 0;
  }
}

void SetOrientation(int degrees) noexcept {
  try {
    Core::Get().SetOrientation(degrees);
  } catch (...) {
  }
}

bool PlaySound(const char* data, unsigned long size) noexcept {
  try {
    return Core::Get().PlaySound(data, size);
  } catch (...) {
    return Core::Get().Refuse(kAudio, "Internal error while playing a sound");
  }
}

bool StopSound(const char* data) noexcept {
  try {
    return Core::Get().StopSound(data);
  } catch (...) {
    return Core::Get().Refuse(kAudio, "Internal error while stopping a sound");
  }
}

}  // namespace core
}  // namespace ktopen
