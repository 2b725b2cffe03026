// The control API of ktsim.h. No exception leaves these functions: a failed allocation drops the
// request.
#include <cstring>
#include <string>

#include "frame.h"
#include "ktsim/ktsim.h"
#include "meeting.h"
#include "simulation.h"

using ktsim::EngineSettings;
using ktsim::Meeting;
using ktsim::Simulation;

namespace {

Simulation& Sim() { return Simulation::Get(); }

std::string Str(const char* text) { return text == nullptr ? std::string() : std::string(text); }

ktsim_engine Checked(ktsim_engine engine) {
  return engine == KTSIM_VIDEO ? KTSIM_VIDEO : KTSIM_AUDIO;
}

template <typename F>
void Guarded(F&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
}

}  // namespace

extern "C" {

void ktsim_reset(void) {
  Guarded([] { Sim().Reset(); });
}

void ktsim_shutdown(void) {
  Guarded([] { Sim().Shutdown(); });
}

int ktsim_threads_running(void) {
  int count = 0;
  Guarded([&] {
    count += Sim().queue(KTSIM_AUDIO).running() ? 1 : 0;
    count += Sim().queue(KTSIM_VIDEO).running() ? 1 : 0;
    count += Meeting::Get().clock_running() ? 1 : 0;
  });
  return count;
}

void ktsim_deliver(ktsim_engine engine, const char* xml) {
  Guarded([&] { Sim().queue(Checked(engine)).PushEvent(Str(xml)); });
}

void ktsim_deliver_sync(ktsim_engine engine, const char* xml) {
  Guarded([&] {
    ktengine::EventQueue& queue = Sim().queue(Checked(engine));
    queue.WaitFor(queue.PushEvent(Str(xml)));
  });
}

void ktsim_flush(ktsim_engine engine) {
  Guarded([&] { Sim().queue(Checked(engine)).Flush(); });
}

void ktsim_emit_trace(ktsim_engine engine, unsigned int level, const char* text) {
  Guarded([&] { Sim().queue(Checked(engine)).PushTrace(level, Str(text)); });
}

void ktsim_set_connect_result(ktsim_engine engine, bool ok) {
  Guarded([&] { Sim().Update(Checked(engine), [&](EngineSettings& s) { s.connect_ok = ok; }); });
}

void ktsim_set_setroot_result(ktsim_engine engine, bool ok) {
  Guarded([&] { Sim().Update(Checked(engine), [&](EngineSettings& s) { s.setroot_ok = ok; }); });
}

void ktsim_set_last_error(ktsim_engine engine, const char* text) {
  Guarded([&] {
    std::string error = Str(text);
    Sim().Update(Checked(engine), [&](EngineSettings& s) { s.last_error = std::move(error); });
  });
}

void ktsim_set_state(ktsim_engine engine, const char* xml) {
  Guarded([&] {
    const char* kept = Sim().Keep(Str(xml));
    Sim().Update(Checked(engine), [&](EngineSettings& s) {
      s.state = kept;
      s.state_set = true;
    });
  });
}

void ktsim_set_sound_result(bool ok) {
  Guarded([&] { Sim().Update(KTSIM_AUDIO, [&](EngineSettings& s) { s.sound_ok = ok; }); });
}

void ktsim_set_frame_ready(const char* stream_id, int ready) {
  Guarded([&] { Sim().SetFrameReady(Str(stream_id), ready); });
}

unsigned long ktsim_frame_polls(const char* stream_id) {
  unsigned long polls = 0;
  Guarded([&] { polls = Sim().FramePolls(stream_id); });
  return polls;
}

size_t ktsim_log_count(void) {
  size_t count = 0;
  Guarded([&] { count = Sim().LogCount(); });
  return count;
}

long ktsim_log_entry(size_t index, char* buffer, size_t size) {
  long length = -1;
  Guarded([&] { length = Sim().LogEntry(index, buffer, size); });
  return length;
}

void ktsim_log_clear(void) {
  Guarded([] { Sim().LogClear(); });
}

int ktsim_trace_level(ktsim_engine engine) {
  int level = -1;
  Guarded([&] { level = Sim().Settings(Checked(engine)).trace_level; });
  return level;
}

long ktsim_trace_history(ktsim_engine engine, char* buffer, size_t size) {
  long length = 0;
  Guarded([&] {
    const std::string history = Sim().Settings(Checked(engine)).trace_history;
    if (buffer != nullptr && size > 0) {
      const size_t n = history.size() < size - 1 ? history.size() : size - 1;
      std::memcpy(buffer, history.data(), n);
      buffer[n] = '\0';
    }
    length = static_cast<long>(history.size());
  });
  return length;
}

void ktsim_meeting_enable(bool on) {
  Guarded([&] { Meeting::Get().Enable(on); });
}

bool ktsim_meeting_enabled(void) {
  bool on = false;
  Guarded([&] { on = Meeting::Get().enabled(); });
  return on;
}

void ktsim_meeting_configure(const char* options) {
  Guarded([&] { Meeting::Get().Configure(Str(options)); });
}

bool ktsim_meeting_running(void) {
  bool running = false;
  Guarded([&] { running = Meeting::Get().running(); });
  return running;
}

int ktsim_meeting_participants(void) {
  int count = 0;
  Guarded([&] { count = Meeting::Get().participants(); });
  return count;
}

bool ktsim_meeting_arrive(void) {
  bool done = false;
  Guarded([&] { done = Meeting::Get().Arrive(); });
  return done;
}

bool ktsim_meeting_depart(void) {
  bool done = false;
  Guarded([&] { done = Meeting::Get().Depart(); });
  return done;
}

int ktsim_meeting_volume(const char* id) {
  int volume = -1;
  Guarded([&] { volume = Meeting::Get().Volume(Str(id)); });
  return volume;
}

size_t ktsim_frame_copy(const ktsim_frame* frame, void* pixels, size_t size, ktsim_frame* info) {
  size_t bytes = 0;
  Guarded([&] { bytes = ktsim::frames::Copy(frame, pixels, size, info); });
  return bytes;
}

}  // extern "C"
