// Differential fuzz target of the event router: each input runs twice, each time on a fresh meeting
// with the same participants, once through the tree only (the reference) and once the way the
// engine callbacks route (canonical documents are read in place). Everything observable must be
// the same, or the target aborts: the delegate calls with their order and arguments, the log lines
// with their levels (the line of an exception caught at the callback boundary among them), the
// registry's contents, the timer tasks, the engine calls and the last-error text.
//
// Input: lines separated by line feeds; the first byte of a line picks the engine (even: audio,
// odd: video), the rest is the event document.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kt/xml.h"
#include "ktsim/ktsim.h"
#include "meeting/AudioEvents.h"
#include "meeting/Convoke.h"
#include "meeting/EventRouting.h"
#include "meeting/VideoEvents.h"
#include "meeting/VideoTimerTask.h"

namespace {

using Telmora::Participant;

std::string describe(const Participant& p) {
  std::ostringstream out;
  out << "{uuid=" << p.uuid << " site=" << p.site << " local=" << p.isLocal
      << " audio=" << p.audioInfo.streamId << "/" << p.audioInfo.site;
  for (const auto& entry : p.videoInfos) {
    const Telmora::VideoInfo& v = entry.second;
    out << " video[" << entry.first << "]=" << v.streamId << "/" << v.site << "/" << v.name << "/"
        << v.codecName << "/" << v.local << v.active << "/" << int(v.layout) << "/" << v.width
        << "x" << v.height;
  }
  out << "}";
  return out.str();
}

// Records every call made on the fuzzing thread (timer threads log on their own).
class Recorder : public MeetingDelegate {
 public:
  std::vector<std::string> calls;

  void participantAdded(const Participant& p) override { add("added " + describe(p)); }
  void participantRemoved(const Participant& p) override { add("removed " + describe(p)); }
  void participantAudioAdded(const Participant& p) override { add("audioAdded " + describe(p)); }
  void participantAudioUpdated(const Participant& p) override {
    add("audioUpdated " + describe(p));
  }
  void participantVideoAdded(const Participant& p, std::string id) override {
    add("videoAdded " + describe(p) + " " + id);
  }
  void participantVideoUpdated(const Participant& p, std::string id) override {
    add("videoUpdated " + describe(p) + " " + id);
  }
  void participantVideoRemoved(const Participant& p, std::string id) override {
    add("videoRemoved " + describe(p) + " " + id);
  }
  void participantVideoRemoteLayoutChanged(const Participant& p, std::string id) override {
    add("layout " + describe(p) + " " + id);
  }
  void videoStreamBufferReady(std::string id, void* buffer) override {
    add("bufferReady " + id + " " + std::to_string(reinterpret_cast<uintptr_t>(buffer)));
  }
  void videoFrameReady(std::string id, void* buffer) override {
    add("frameReady " + id + " " + std::to_string(reinterpret_cast<uintptr_t>(buffer)));
  }
  void inputMeterChanged(unsigned char level) override { add("input " + std::to_string(level)); }
  void outputMeterChanged(unsigned char level) override { add("output " + std::to_string(level)); }
  void participantAmplitudeChanged(const Participant& p, unsigned char level, bool muted) override {
    add("amplitude " + describe(p) + " " + std::to_string(level) + " " + std::to_string(muted));
  }
  void logMessage(unsigned int level, const std::string& text) override {
    add("log " + std::to_string(level) + " " + text);
  }
  void binaryPlaybackEnded(unsigned long long id) override { add("ended " + std::to_string(id)); }
  void binaryPlaybackFailed(unsigned long long id) override { add("failed " + std::to_string(id)); }
  void audioConditionUpdate(Telmora::AudioCondition& c) override {
    add("audioCondition " + figures(c) + " " + std::to_string(c.upstreamLoss) + " " +
        std::to_string(c.upstreamLatency) + " " + std::to_string(c.downstreamLoss) + " " +
        std::to_string(c.downstreamLatency));
  }
  void videoConditionUpdate(Telmora::VideoCondition& c) override {
    add("videoCondition " + figures(c));
  }

 private:
  template <class C>
  static std::string figures(const C& c) {
    return std::to_string(c.received) + " " + std::to_string(c.sent) + " " +
           std::to_string(c.dataBytesDropped) + " " + std::to_string(c.ctrlBytesDropped) + " " +
           std::to_string(c.cpuUsage) + " " + std::to_string(c.bars);
  }
  void add(const std::string& call) {
    if (std::this_thread::get_id() == owner_) calls.push_back(call);
  }
  const std::thread::id owner_ = std::this_thread::get_id();
};

struct Observation {
  std::vector<std::string> calls;
  std::vector<std::string> registry;
  std::vector<std::string> tasks;
  std::vector<std::string> engineCalls;
  std::string lastError;

  bool operator==(const Observation& o) const {
    return calls == o.calls && registry == o.registry && tasks == o.tasks &&
           engineCalls == o.engineCalls && lastError == o.lastError;
  }
};

// Every attribute value of a document: the candidates for the stream ids of timer tasks.
void collectValues(const kt::XMLElement& element, std::set<std::string>& out) {
  for (const kt::XMLAttribute* a : element.attributes) out.insert(a->value);
  for (const kt::XMLElement* child : element.children) collectValues(*child, out);
}

void route(bool video, const std::string& text, Telmora::EventPath path) {
  if (video) {
    Telmora::routeVideoEvent(text.c_str(), path);
  } else {
    Telmora::routeAudioEvent(text.c_str(), path);
  }
}

// A fresh meeting: the local user, two remote users with an audio and a video stream each, and a
// local camera stream.
void freshMeeting() {
  Telmora::Convoke* session = Telmora::Convoke::sharedInstance();
  session->setDelegate(nullptr);
  session->exitMeeting();
  session->joinMeeting("127.0.0.1", "m1", "key", "me@example.com", "Me", [](bool) {});
  const char* audio[] = {
      "<event name=\"audio_site_changed\"><stream id=\"a1\"><site>S1</site>"
      "<email>u1@example.com</email></stream></event>",
      "<event name=\"audio_site_changed\"><stream id=\"a2\"><site>S2</site>"
      "<email>u2@example.com</email></stream></event>",
  };
  const char* video[] = {
      "<event name=\"video_site_changed\"><stream id=\"v1\"><email>u1@example.com</email>"
      "<active>true</active><name>Cam</name><local>false</local><layout>1</layout>"
      "<width>640</width><height>480</height></stream></event>",
      "<event name=\"video_site_changed\"><stream id=\"v2\"><email>u2@example.com</email>"
      "<active>false</active><name>Cam</name><local>false</local><layout>2</layout>"
      "<width>320</width><height>240</height><codecName>H264</codecName><site>S2</site>"
      "</stream></event>",
      "<event name=\"video_site_changed\"><stream id=\"lv\"><email>x</email>"
      "<active>true</active><name>Cam</name><local>true</local><layout>0</layout>"
      "<width>1280</width><height>720</height><device_name>Lumen HD</device_name></stream>"
      "</event>",
  };
  for (const char* text : audio) Telmora::routeAudioEvent(text, Telmora::EventPath::kTreeOnly);
  for (const char* text : video) Telmora::routeVideoEvent(text, Telmora::EventPath::kTreeOnly);
  // A known last error: the refusal of an empty stream id.
  session->setAudioStreamVolume("", 50);
  ktsim_log_clear();
}

Observation run(const std::vector<std::pair<bool, std::string>>& events,
                const std::set<std::string>& candidates, Telmora::EventPath path) {
  freshMeeting();
  Telmora::Convoke* session = Telmora::Convoke::sharedInstance();
  // Never destroyed: a timer thread may still hold the delegate pointer after it is unset.
  static Recorder* const recorder = new Recorder();
  recorder->calls.clear();
  session->setDelegate(recorder);
  for (const auto& event : events) route(event.first, event.second, path);
  session->setDelegate(nullptr);

  Observation o;
  o.calls = recorder->calls;
  std::vector<std::string> keys;
  session->getParticipantIds(keys);
  for (const std::string& key : keys) {
    Participant p;
    session->findParticipantByUUID(key, p);
    o.registry.push_back(key + " " + describe(p));
  }
  Telmora::VideoEvents* videoEvents = Telmora::VideoEvents::sharedInstance();
  o.tasks.push_back("count " + std::to_string(videoEvents->taskCount()));
  for (const std::string& id : candidates) {
    uint64_t pixelBuffer = 0;
    if (videoEvents->registeredPixelBuffer(id, pixelBuffer)) {
      o.tasks.push_back(id + " " + std::to_string(pixelBuffer));
    }
  }
  char buffer[4096];
  for (std::size_t i = 0; i < ktsim_log_count(); ++i) {
    if (ktsim_log_entry(i, buffer, sizeof buffer) >= 0) o.engineCalls.push_back(buffer);
  }
  o.lastError = session->getLastError();
  return o;
}

void print(const char* title, const std::vector<std::string>& lines) {
  std::fprintf(stderr, "%s:\n", title);
  for (const std::string& line : lines) std::fprintf(stderr, "  %s\n", line.c_str());
}

void report(const char* path, const Observation& o) {
  std::fprintf(stderr, "==== %s\n", path);
  print("calls", o.calls);
  print("registry", o.registry);
  print("tasks", o.tasks);
  print("engine calls", o.engineCalls);
  std::fprintf(stderr, "last error: %s\n", o.lastError.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ktsim_reset();  // manual engines: nothing happens unless an event is delivered
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size > 8192) return 0;
  std::vector<std::pair<bool, std::string>> events;
  std::set<std::string> candidates;
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t start = 0;
  while (start < input.size()) {
    std::size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    if (end > start) {
      const bool video = (static_cast<unsigned char>(input[start]) & 1) != 0;
      // As an engine hands it over: a C string, ending at the first NUL.
      const std::string text(input.c_str() + start + 1);
      events.emplace_back(video, text.substr(0, std::min(text.size(), end - start - 1)));
      kt::XMLElement root;
      kt::ParseXMLBuffer(events.back().second.data(), events.back().second.size(), root);
      collectValues(root, candidates);
    }
    start = end + 1;
  }
  if (events.empty() || events.size() > 16) return 0;

  const Observation tree = run(events, candidates, Telmora::EventPath::kTreeOnly);
  const Observation fast = run(events, candidates, Telmora::EventPath::kFastWhenCanonical);
  if (!(tree == fast)) {
    report("tree", tree);
    report("fast", fast);
    std::abort();
  }
  // No timer thread outlives its input: the leak check that follows each input sees only what
  // the input itself left behind.
  Telmora::Convoke::sharedInstance()->exitMeeting();
  if (Telmora::VideoTimerTask::drainStoppedThreads() != 0) {
    std::fprintf(stderr, "timer threads left after the input\n");
    std::abort();
  }
  return 0;
}
