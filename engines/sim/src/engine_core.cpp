#include "engine_core.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "frame.h"
#include "meeting.h"
#include "simulation.h"

namespace ktsim {
namespace core {

namespace {

const char* Prefix(ktsim_engine engine) { return engine == KTSIM_VIDEO ? "Video" : "Audio"; }

std::string Entry(ktsim_engine engine, const char* function) {
  return std::string(Prefix(engine)) + function;
}

std::string Pointer(const void* p) {
  return std::to_string(static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
}

Simulation& Sim() { return Simulation::Get(); }
Meeting& Scripted() { return Meeting::Get(); }

std::string Str(const char* text) { return text == nullptr ? std::string() : std::string(text); }

// A trace line of the scripted engines, for the trace callback when the level lets it through
// (without a level set, up to 3).
void Trace(ktsim_engine engine, unsigned int level, const std::string& text) {
  EventQueue& queue = Sim().queue(engine);
  if (queue.trace_callback() == nullptr) return;
  const int set = Sim().Settings(engine).trace_level;
  if (static_cast<int>(level) > (set < 0 ? 3 : set)) return;
  queue.PushTrace(level, (engine == KTSIM_VIDEO ? "video engine: " : "audio engine: ") + text);
}

void Refused(ktsim_engine engine, const std::string& error) {
  Sim().Update(engine, [&](EngineSettings& s) { s.last_error = error; });
  Trace(engine, 2, error);
}

}  // namespace

void SetCallback(ktsim_engine engine, EngineEventCallback callback) noexcept {
  try {
    Sim().Log(Entry(engine, "SetCallback\t") + (callback ? "set" : "null"));
    Sim().queue(engine).SetCallback(callback);
  } catch (...) {
  }
}

bool Connect(ktsim_engine engine, const char* url, const char* mode, const char* empty,
             const char* display_name, const char* uuid, const char* key, const char* cipher, int a,
             int b, int c) noexcept {
  try {
    std::string entry = Entry(engine, "Connect");
    for (const char* text : {url, mode, empty, display_name, uuid, key, cipher}) {
      entry += '\t';
      entry += Text(text);
    }
    for (int number : {a, b, c}) {
      entry += '\t';
      entry += std::to_string(number);
    }
    Sim().Log(std::move(entry));
    if (!Sim().Settings(engine).connect_ok) return false;
    if (!Scripted().enabled()) return true;
    std::string error;
    if (!Scripted().Connect(engine, Str(url), Str(display_name), Str(uuid), &error)) {
      Refused(engine, error);
      return false;
    }
    Trace(engine, 3, "connected to " + Str(url));
    return true;
  } catch (...) {
    return false;
  }
}

void Disconnect(ktsim_engine engine, int how) noexcept {
  try {
    Sim().Log(Entry(engine, "Disconnect\t") + std::to_string(how));
    const bool scripted = Scripted().running();
    Scripted().End();
    if (scripted) Trace(engine, 3, "disconnected");
    // Nothing keeps running: each event thread ends once it delivered what is queued. (Waiting
    // for them here could deadlock a host that disconnects while its callback waits on it.)
    Sim().queue(KTSIM_AUDIO).StopWhenIdle();
    Sim().queue(KTSIM_VIDEO).StopWhenIdle();
  } catch (...) {
  }
}

bool SetRoot(ktsim_engine engine, const char* xml) noexcept {
  try {
    Sim().Log(Entry(engine, "SetRoot\t") + Text(xml));
    if (!Sim().Settings(engine).setroot_ok) return false;
    if (!Scripted().enabled()) return true;
    std::string error;
    if (!Scripted().Command(engine, Str(xml), &error)) {
      Refused(engine, error);
      return false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

int GetLastError(ktsim_engine engine, char* buffer, int size) noexcept {
  try {
    Sim().Log(Entry(engine, "GetLastError\t") + std::to_string(size));
    const std::string text = Sim().Settings(engine).last_error;
    if (buffer == nullptr || size <= 1 || text.empty()) return 0;
    const size_t n = text.size() < static_cast<size_t>(size) - 1 ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
    return static_cast<int>(n);
  } catch (...) {
    return 0;
  }
}

const char* GetState(ktsim_engine engine) noexcept {
  try {
    Sim().Log(Entry(engine, "GetState"));
    const EngineSettings settings = Sim().Settings(engine);
    if (settings.state_set || !Scripted().enabled()) return settings.state;
    return Sim().Keep(Scripted().State(engine));
  } catch (...) {
    return "";
  }
}

void SetTraceLevel(ktsim_engine engine, int level) noexcept {
  try {
    Sim().Log(Entry(engine, "SetTraceLevel\t") + std::to_string(level));
    Sim().Update(engine, [&](EngineSettings& s) { s.trace_level = level; });
  } catch (...) {
  }
}

void TraceOutputHistory(ktsim_engine engine, const char* text) noexcept {
  try {
    Sim().Log(Entry(engine, "TraceOutputHistory\t") + Text(text));
    const std::string history = text ? text : "";
    Sim().Update(engine, [&](EngineSettings& s) { s.trace_history = history; });
  } catch (...) {
  }
}

void TraceSetMessageCallback(ktsim_engine engine, EngineTraceCallback callback) noexcept {
  try {
    Sim().Log(Entry(engine, "TraceSetMessageCallback\t") + (callback ? "set" : "null"));
    Sim().queue(engine).SetTraceCallback(callback);
  } catch (...) {
  }
}

bool PlaySound(const char* data, unsigned long size, const char* extra) noexcept {
  try {
    Sim().Log("AudioPlaySound\t" + Pointer(data) + '\t' + std::to_string(size) + '\t' +
              Text(extra));
    if (data == nullptr || !Sim().Settings(KTSIM_AUDIO).sound_ok) return false;
    return !Scripted().enabled() || Scripted().PlaySound(data, size);
  } catch (...) {
    return false;
  }
}

bool StopSound(const char* data) noexcept {
  try {
    Sim().Log("AudioStopSound\t" + Pointer(data));
    if (data == nullptr || !Sim().Settings(KTSIM_AUDIO).sound_ok) return false;
    return !Scripted().enabled() || Scripted().StopSound(data);
  } catch (...) {
    return false;
  }
}

void SetDeviceOrientation(int orientation) noexcept {
  try {
    Sim().Log("VideoSetDeviceOrientation\t" + std::to_string(orientation));
    Sim().Update(KTSIM_VIDEO, [&](EngineSettings& s) { s.orientation = orientation; });
  } catch (...) {
  }
}

int FrameReady(const char* stream_id) noexcept {
  try {
    const std::string id = Str(stream_id);
    int forced = 0;
    if (Sim().PollFrame(id, &forced)) return forced != 0 ? 1 : 0;
    return Scripted().enabled() && Scripted().PollFrame(id) > 0 ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

}  // namespace core
}  // namespace ktsim
