// Event routing: engine event documents through audioCallback / videoCallback to a counting
// delegate, in meetings of 10 and of 1,000 participants. For reference, the same work done by a
// router built on pugixml with hash indexes from stream id to participant (when pugixml is there).
// Each benchmark checks that every event reached the delegate. Compare the two in one run:
//   build/bench/bin/event_routing_bench --benchmark_filter='Amplitude|RemoteLayout'
// The layout events repeat one layout per stream, so after the first pass no record is copied.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ktsim/ktsim.h"
#include "meeting/AudioEvents.h"
#include "meeting/Convoke.h"
#include "meeting/QuietDelegate.h"
#include "meeting/VideoEvents.h"

#ifdef CONVOKE_HAVE_PUGIXML
#include <pugixml.hpp>
#endif

namespace {

std::atomic<unsigned long> gDelivered{0};

class CountingDelegate : public Telmora::QuietDelegate {
 public:
  void participantVideoRemoteLayoutChanged(const Telmora::Participant&, std::string) override {
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
  void inputMeterChanged(unsigned char) override {
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
  void participantAmplitudeChanged(const Telmora::Participant& p, unsigned char a, bool) override {
    benchmark::DoNotOptimize(p.uuid.data());
    benchmark::DoNotOptimize(a);
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
};

CountingDelegate gDelegate;

// The events of a run, which address every participant of the meeting in a scattered order.
constexpr int kEvents = 1024;
int speaker(int event, int participants) { return (event * 997) % participants; }

std::string amplitudeEvent(int i) {
  return "<event name=\"amplitude\"><stream id=\"audio-" + std::to_string(i) +
         "\" muted=\"false\"><amplitude>" + std::to_string(i % 100) +
         "</amplitude></stream></event>";
}

std::string layoutEvent(int i) {
  return "<event name=\"remote_layout_changed\"><stream id=\"video-" + std::to_string(i) +
         "\"><layout>2</layout></stream></event>";
}

// A meeting of n remote participants, each with one audio and one video stream.
void fillMeeting(int n) {
  Telmora::Convoke* session = Telmora::Convoke::sharedInstance();
  session->setDelegate(nullptr);
  session->exitMeeting();
  for (int i = 0; i < n; ++i) {
    const std::string who = "user" + std::to_string(i) + "@example.com";
    audioCallback(nullptr, ("<event name=\"audio_site_changed\"><stream id=\"audio-" +
                            std::to_string(i) + "\"><site>Desk " + std::to_string(i) +
                            "</site><email>" + who + "</email></stream></event>")
                               .c_str());
    videoCallback(nullptr, ("<event name=\"video_site_changed\"><stream id=\"video-" +
                            std::to_string(i) + "\"><email>" + who +
                            "</email><active>true</active><name>Camera</name><local>false</local>"
                            "<layout>1</layout><width>1280</width><height>720</height>"
                            "<codecName>H264</codecName><site>Desk</site></stream></event>")
                               .c_str());
  }
  session->setDelegate(&gDelegate);
}

// One event through the session (routePugixml: through the reference router). Not inlined, so that
// an instruction count under callgrind can attribute the cost of each routed event
// (bench/route-instructions).
[[gnu::noinline]] void routeConvoke(void (*callback)(void*, const char*), const char* text) {
  callback(nullptr, text);
}

// Routes the events of makeEvent through the session's callback for the engine that sends them.
void runConvoke(benchmark::State& state, std::string (*makeEvent)(int),
                void (*callback)(void*, const char*)) {
  const int n = static_cast<int>(state.range(0));
  ktsim_reset();
  fillMeeting(n);
  std::vector<std::string> events;
  for (int i = 0; i < kEvents; ++i) events.push_back(makeEvent(speaker(i, n)));
  // One pass first, so that the measured events find every record in its steady state.
  for (const std::string& event : events) callback(nullptr, event.c_str());
  std::size_t next = 0;
  const unsigned long before = gDelivered.load();
  for (auto _ : state) {
    routeConvoke(callback, events[next].c_str());
    next = (next + 1) % kEvents;
  }
  if (gDelivered.load() - before != static_cast<unsigned long>(state.iterations()))
    state.SkipWithError("missed events");
  state.SetItemsProcessed(state.iterations());
  Telmora::Convoke::sharedInstance()->setDelegate(nullptr);
}

void BM_ConvokeAmplitude(benchmark::State& state) {
  runConvoke(state, amplitudeEvent, audioCallback);
}
BENCHMARK(BM_ConvokeAmplitude)->Arg(10)->Arg(1000);

void BM_ConvokeRemoteLayout(benchmark::State& state) {
  runConvoke(state, layoutEvent, videoCallback);
}
BENCHMARK(BM_ConvokeRemoteLayout)->Arg(10)->Arg(1000);

#ifdef CONVOKE_HAVE_PUGIXML
// The reference router: the same work as ours on a pugixml DOM. The same registry design (records
// as immutable shared snapshots, found through hash indexes by stream id under a mutex that is
// released before the delegate runs, a record copied only when it changes), the same name table,
// the same log lines handed to the delegate, and one delegate call per event.
class PugixmlRouter {
 public:
  explicit PugixmlRouter(int n) {
    for (int i = 0; i < n; ++i) {
      auto p = std::make_shared<Telmora::Participant>("user" + std::to_string(i) + "@example.com",
                                                      "Desk " + std::to_string(i), false);
      const std::string audio = "audio-" + std::to_string(i);
      const std::string video = "video-" + std::to_string(i);
      p->audioInfo = Telmora::AudioInfo(audio, "Desk " + std::to_string(i));
      p->videoInfos.emplace(video, Telmora::VideoInfo(video, "Desk", "Camera", "H264", "false",
                                                      "true", "1", "1280", "720"));
      byAudio_[audio] = p;
      byVideo_[video] = p;
    }
  }

  void route(const std::string& text, MeetingDelegate& delegate) {
    pugi::xml_document doc;
    if (!doc.load_buffer(text.data(), text.size())) return;
    pugi::xml_node event = doc.child("event");
    const char* name = event.attribute("name").value();
    int route = -1;
    for (int r = 0; r < kRoutes; ++r) {
      if (std::strcmp(name, kNames[r]) == 0) {
        route = r;
        break;
      }
    }
    if (route == 2) amplitude(event, delegate);
    if (route == 5) layout(event, delegate);
  }

 private:
  static constexpr int kRoutes = 7;
  static constexpr const char* kNames[kRoutes] = {
      "audio_site_changed",  "audio_stream_removed",      "amplitude",
      "video_site_changed",  "video_stream_size_changed", "remote_layout_changed",
      "video_stream_removed"};

  void amplitude(pugi::xml_node event, MeetingDelegate& delegate) {
    pugi::xml_node stream = event.child("stream");
    pugi::xml_attribute id = stream.attribute("id");
    pugi::xml_attribute muted = stream.attribute("muted");
    pugi::xml_node level = stream.child("amplitude");
    if (!stream || !id || !muted || !level) return;
    std::shared_ptr<const Telmora::Participant> found;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = byAudio_.find(id.value());
      if (it == byAudio_.end()) return;
      found = it->second;
    }
    delegate.participantAmplitudeChanged(*found, static_cast<unsigned char>(level.text().as_int()),
                                         std::strcmp(muted.value(), "true") == 0);
  }

  void layout(pugi::xml_node event, MeetingDelegate& delegate) {
    pugi::xml_node stream = event.child("stream");
    pugi::xml_attribute id = stream.attribute("id");
    pugi::xml_node layout = stream.child("layout");
    if (!stream || !id || !layout) return;
    delegate.logMessage(6, std::string("Convoke: processRemoteLayoutChanged: new layout constant "
                                       "is: ") +
                               layout.text().get());
    const std::string streamId = id.value();
    const uint8_t value = static_cast<uint8_t>(layout.text().as_int());
    std::shared_ptr<const Telmora::Participant> entry;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = byVideo_.find(streamId);
      if (it == byVideo_.end()) return;
      auto video = it->second->videoInfos.find(streamId);
      if (video != it->second->videoInfos.end() && video->second.layout != value) {
        auto copy = std::make_shared<Telmora::Participant>(*it->second);
        copy->videoInfos[streamId].layout = value;
        it->second = copy;
      }
      entry = it->second;
    }
    delegate.logMessage(6,
                        "Convoke: processRemoteLayoutChanged: Found participant, now looking for "
                        "videoINfo ");
    delegate.logMessage(6, "Convoke: processRemoteLayoutChanged: found videoInfo iterator");
    delegate.participantVideoRemoteLayoutChanged(*entry, streamId);
  }

  std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<const Telmora::Participant>> byAudio_;
  std::unordered_map<std::string, std::shared_ptr<const Telmora::Participant>> byVideo_;
};

[[gnu::noinline]] void routePugixml(PugixmlRouter& router, const std::string& text) {
  router.route(text, gDelegate);
}

void runPugixml(benchmark::State& state, std::string (*makeEvent)(int)) {
  const int n = static_cast<int>(state.range(0));
  PugixmlRouter router(n);
  std::vector<std::string> events;
  for (int i = 0; i < kEvents; ++i) events.push_back(makeEvent(speaker(i, n)));
  for (const std::string& event : events) router.route(event, gDelegate);
  std::size_t next = 0;
  const unsigned long before = gDelivered.load();
  for (auto _ : state) {
    routePugixml(router, events[next]);
    next = (next + 1) % kEvents;
  }
  if (gDelivered.load() - before != static_cast<unsigned long>(state.iterations()))
    state.SkipWithError("missed events");
  state.SetItemsProcessed(state.iterations());
}

void BM_PugixmlAmplitude(benchmark::State& state) { runPugixml(state, amplitudeEvent); }
BENCHMARK(BM_PugixmlAmplitude)->Arg(10)->Arg(1000);

void BM_PugixmlRemoteLayout(benchmark::State& state) { runPugixml(state, layoutEvent); }
BENCHMARK(BM_PugixmlRemoteLayout)->Arg(10)->Arg(1000);
#endif

}  // namespace

BENCHMARK_MAIN();
