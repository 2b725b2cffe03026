#include "Harness.h"

#include <atomic>

namespace convoke_test {

Recorder& Recorder::instance() {
  // Never destroyed: stopped frame timers may still be finishing their wait when the process exits.
  static Recorder* const recorder = new Recorder();
  return *recorder;
}

void Recorder::add(std::string line) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
  }
  changed_.notify_all();
}

std::vector<std::string> Recorder::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> Recorder::matching(const std::string& prefix) const {
  std::vector<std::string> found;
  for (const std::string& line : lines()) {
    if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line);
  }
  return found;
}

bool Recorder::waitFor(const std::string& prefix, std::size_t count,
                       std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    std::size_t n = 0;
    for (const std::string& line : lines_) {
      if (line.compare(0, prefix.size(), prefix) == 0) ++n;
    }
    return n >= count;
  });
}

void Recorder::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

namespace {

void record(std::string line) { Recorder::instance().add(std::move(line)); }
std::string num(unsigned long long v) { return std::to_string(v); }

void onAdded(const char* u) { record(std::string("participantAdded:") + u); }
void onRemoved(const char* u) { record(std::string("participantRemoved:") + u); }
void onAudioAdded(const char* u) { record(std::string("participantAudioAdded:") + u); }
void onAudioUpdated(const char* u) { record(std::string("participantAudioUpdated:") + u); }
void onVideoAdded(const char* u, const char* s) {
  record(std::string("participantVideoAdded:") + u + ":" + s);
}
void onVideoUpdated(const char* u, const char* s) {
  record(std::string("participantVideoUpdated:") + u + ":" + s);
}
void onVideoRemoved(const char* u, const char* s) {
  record(std::string("participantVideoRemoved:") + u + ":" + s);
}
void onLayout(const char* u, const char* s) {
  record(std::string("participantVideoRemoteLayoutChanged:") + u + ":" + s);
}
void onBufferReady(const char* s, void* b) {
  record(std::string("videoStreamBufferReady:") + s + ":" + num(reinterpret_cast<uintptr_t>(b)));
}
void onFrameReady(const char* s, void* b) {
  record(std::string("videoFrameReady:") + s + ":" + num(reinterpret_cast<uintptr_t>(b)));
}
void onInputMeter(unsigned char l) { record("inputMeterChanged:" + num(l)); }
void onOutputMeter(unsigned char l) { record("outputMeterChanged:" + num(l)); }
void onAmplitude(const char* u, unsigned char a, bool m) {
  record(std::string("participantAmplitudeChanged:") + u + ":" + num(a) + ":" +
         (m ? "muted" : "unmuted"));
}
void onLog(unsigned int, const char*) { record("logMessage"); }
void onPlaybackEnded(unsigned long long id) { record("binaryPlaybackEnded:" + num(id)); }
void onPlaybackFailed(unsigned long long id) { record("binaryPlaybackFailed:" + num(id)); }
void onAudioCondition(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j) {
  record("audioConditionUpdate:" + std::to_string(a) + "," + std::to_string(b) + "," +
         std::to_string(c) + "," + std::to_string(d) + "," + std::to_string(e) + "," +
         std::to_string(f) + "," + std::to_string(g) + "," + std::to_string(h) + "," +
         std::to_string(i) + "," + std::to_string(j));
}
void onVideoCondition(int, int, int, int, int, int) { record("videoConditionUpdate"); }

std::atomic<int> gCompletions{0};
std::atomic<bool> gLastCompletion{false};
void onJoined(bool ok) {
  gCompletions.fetch_add(1);
  gLastCompletion.store(ok);
}

}  // namespace

void registerAllCallbacks() {
  void* table[DelegateCallbackSlotCount] = {
      reinterpret_cast<void*>(onAdded),          reinterpret_cast<void*>(onRemoved),
      reinterpret_cast<void*>(onAudioAdded),     reinterpret_cast<void*>(onAudioUpdated),
      reinterpret_cast<void*>(onVideoAdded),     reinterpret_cast<void*>(onVideoUpdated),
      reinterpret_cast<void*>(onVideoRemoved),   reinterpret_cast<void*>(onLayout),
      reinterpret_cast<void*>(onBufferReady),    reinterpret_cast<void*>(onFrameReady),
      reinterpret_cast<void*>(onInputMeter),     reinterpret_cast<void*>(onOutputMeter),
      reinterpret_cast<void*>(onAmplitude),      reinterpret_cast<void*>(onLog),
      reinterpret_cast<void*>(onPlaybackEnded),  reinterpret_cast<void*>(onPlaybackFailed),
      reinterpret_cast<void*>(onAudioCondition), reinterpret_cast<void*>(onVideoCondition),
  };
  for (unsigned int slot = 0; slot < DelegateCallbackSlotCount; ++slot) {
    SetDelegateCallback(slot, table[slot]);
  }
}

std::vector<std::string> engineLog() {
  std::vector<std::string> entries;
  const std::size_t count = ktsim_log_count();
  for (std::size_t i = 0; i < count; ++i) {
    const long length = ktsim_log_entry(i, nullptr, 0);
    if (length < 0) break;
    std::string entry(static_cast<std::size_t>(length) + 1, '\0');
    ktsim_log_entry(i, &entry[0], entry.size());
    entry.resize(static_cast<std::size_t>(length));
    entries.push_back(entry);
  }
  return entries;
}

std::vector<std::string> engineCalls(const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& entry : engineLog()) {
    if (entry.compare(0, prefix.size(), prefix) == 0) found.push_back(entry);
  }
  return found;
}

std::string audioSiteChanged(const std::string& streamId, const std::string& site,
                             const std::string& email) {
  return "<event name=\"audio_site_changed\"><stream id=\"" + streamId + "\"><site>" + site +
         "</site><email>" + email + "</email></stream></event>";
}

std::string videoSiteChanged(const std::string& streamId, const std::string& email,
                             const std::string& name, bool local, int width, int height,
                             const std::string& extra) {
  return "<event name=\"video_site_changed\"><stream id=\"" + streamId + "\"><email>" + email +
         "</email><active>false</active><name>" + name + "</name><local>" +
         (local ? "true" : "false") + "</local><layout>1</layout><width>" + std::to_string(width) +
         "</width><height>" + std::to_string(height) + "</height>" + extra + "</stream></event>";
}

bool join(const std::string& uuid, const std::string& key) {
  joinMeeting("srv", "room", key.c_str(), uuid.c_str(), "Ann", onJoined);
  return gLastCompletion.load();
}

void letFramePollersTurn(std::size_t turns) {
  ktsim_set_frame_ready("witness", 1);
  videoEvent(
      "<event name=\"video_stream_buffer_ready\"><stream id=\"witness\" pixel_buffer=\"1\"/>"
      "</event>");
  const std::string prefix = "videoFrameReady:witness:";
  const std::size_t before = Recorder::instance().matching(prefix).size();
  ASSERT_TRUE(Recorder::instance().waitFor(prefix, before + turns));
}

int completionCalls() { return gCompletions.load(); }
bool lastCompletion() { return gLastCompletion.load(); }

void HostTest::SetUp() {
  ktsim_reset();
  ConvokeInitialize();
  registerAllCallbacks();
  ktsim_log_clear();
  Recorder::instance().clear();
  gCompletions.store(0);
}

void HostTest::TearDown() {
  exitMeeting();
  ktsim_flush(KTSIM_AUDIO);
  ktsim_flush(KTSIM_VIDEO);
  ConvokeInitialize();
  ktsim_reset();
}

}  // namespace convoke_test
