#include "sim/sim_fixture.h"

#include <dirent.h>

#include <thread>

namespace simtest {

Recorder& Recorder::Get() {
  static Recorder recorder;
  return recorder;
}

void Recorder::Add(ktsim_engine engine, const char* text) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(Received{engine, std::this_thread::get_id(), text ? text : ""});
  }
  changed_.notify_all();
}

std::vector<Received> Recorder::Take() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Received> out;
  out.swap(received_);
  return out;
}

std::vector<Received> Recorder::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

void Recorder::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
}

bool Recorder::WaitUntil(const std::function<bool(const std::vector<Received>&)>& done,
                         std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return done(received_); });
}

namespace {

void Deliver(ktsim_engine engine, const char* text) {
  Recorder& recorder = Recorder::Get();
  recorder.Add(engine, text);
  if (recorder.hook) recorder.hook(engine, text ? text : "");
}

}  // namespace

void AudioEvent(void*, const char* xml) { Deliver(KTSIM_AUDIO, xml); }
void VideoEvent(void*, const char* xml) { Deliver(KTSIM_VIDEO, xml); }
void AudioTrace(unsigned int level, const char* text) {
  Deliver(KTSIM_AUDIO, ("trace " + std::to_string(level) + " " + text).c_str());
}
void VideoTrace(unsigned int level, const char* text) {
  Deliver(KTSIM_VIDEO, ("trace " + std::to_string(level) + " " + text).c_str());
}

std::vector<std::string> CallLog() {
  std::vector<std::string> log;
  for (size_t i = 0; i < ktsim_log_count(); ++i) {
    const long length = ktsim_log_entry(i, nullptr, 0);
    std::string entry(static_cast<size_t>(length) + 1, '\0');
    ktsim_log_entry(i, &entry[0], entry.size());
    entry.resize(static_cast<size_t>(length));
    log.push_back(entry);
  }
  return log;
}

int ProcessThreads() {
  // Sanitizer runtimes start a helper thread of their own with the first thread the process
  // creates; start and join one first so that it is already counted.
  static const bool warmedUp = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)warmedUp;
  int count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
    closedir(dir);
  }
  return count;
}

void SimTest::SetUp() {
  ktsim_reset();
  AudioSetCallback(AudioEvent);
  VideoSetCallback(VideoEvent);
  AudioTraceSetMessageCallback(nullptr);
  VideoTraceSetMessageCallback(nullptr);
  ktsim_log_clear();
  recorder().hook = nullptr;
  recorder().Clear();
}

void SimTest::TearDown() {
  ktsim_shutdown();
  EXPECT_EQ(ktsim_threads_running(), 0);
  recorder().hook = nullptr;
  recorder().Clear();
}

}  // namespace simtest
