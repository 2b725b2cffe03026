// Event routing: engine event documents through audioCallback / videoCallback to a counting
// delegate, in meetings of 10 and of 1,000 participants. For reference, the same work done by a
// router built on pugixml with a hash index from stream id to participant (when pugixml is there).
#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <unordered_map>
#include <vector>

#include "ktsim/ktsim.h"
#include "meeting/AudioEvents.h"
#include "meeting/Convoke.h"
#include "meeting/VideoEvents.h"

#ifdef CONVOKE_HAVE_PUGIXML
#include <pugixml.hpp>
#endif

namespace {

std::atomic<unsigned long> gDelivered{0};

class CountingDelegate : public MeetingDelegate {
 public:
  void participantAdded(const Telmora::Participant&) override {}
  void participantRemoved(const Telmora::Participant&) override {}
  void participantAudioAdded(const Telmora::Participant&) override {}
  void participantAudioUpdated(const Telmora::Participant&) override {}
  void participantVideoAdded(const Telmora::Participant&, std::string) override {}
  void participantVideoUpdated(const Telmora::Participant&, std::string) override {}
  void participantVideoRemoved(const Telmora::Participant&, std::string) override {}
  void participantVideoRemoteLayoutChanged(const Telmora::Participant&, std::string) override {
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
  void videoStreamBufferReady(std::string, void*) override {}
  void videoFrameReady(std::string, void*) override {}
  void inputMeterChanged(unsigned char) override {
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
  void outputMeterChanged(unsigned char) override {}
  void participantAmplitudeChanged(const Telmora::Participant& p, unsigned char a, bool) override {
    benchmark::DoNotOptimize(p.uuid.data());
    benchmark::DoNotOptimize(a);
    gDelivered.fetch_add(1, std::memory_order_relaxed);
  }
  void binaryPlaybackEnded(unsigned long long) override {}
  void binaryPlaybackFailed(unsigned long long) override {}
  void audioConditionUpdate(Telmora::AudioCondition&) override {}
  void videoConditionUpdate(Telmora::VideoCondition&) override {}
};

CountingDelegate gDelegate;

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

void BM_ConvokeAmplitude(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  ktsim_reset();
  fillMeeting(n);
  std::vector<std::string> events;
  for (int i = 0; i < 64; ++i) events.push_back(amplitudeEvent(i % n));
  std::size_t next = 0;
  for (auto _ : state) {
    audioCallback(nullptr, events[next].c_str());
    next = (next + 1) & 63;
  }
  state.SetItemsProcessed(state.iterations());
  Telmora::Convoke::sharedInstance()->setDelegate(nullptr);
}
BENCHMARK(BM_ConvokeAmplitude)->Arg(10)->Arg(1000);

void BM_ConvokeRemoteLayout(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  ktsim_reset();
  fillMeeting(n);
  std::vector<std::string> events;
  for (int i = 0; i < 64; ++i) events.push_back(layoutEvent(i % n));
  std::size_t next = 0;
  for (auto _ : state) {
    videoCallback(nullptr, events[next].c_str());
    next = (next + 1) & 63;
  }
  state.SetItemsProcessed(state.iterations());
  Telmora::Convoke::sharedInstance()->setDelegate(nullptr);
}
BENCHMARK(BM_ConvokeRemoteLayout)->Arg(10)->Arg(1000);

#ifdef CONVOKE_HAVE_PUGIXML
// The reference router: pugixml DOM, a name table, a hash index to a participant record copied for
// the delegate, as our router does.
struct PeerParticipant {
  std::string uuid;
  std::string site;
};

void BM_PugixmlAmplitude(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::unordered_map<std::string, PeerParticipant> byAudioStream;
  for (int i = 0; i < n; ++i) {
    byAudioStream["audio-" + std::to_string(i)] =
        PeerParticipant{"user" + std::to_string(i) + "@example.com", "Desk"};
  }
  std::vector<std::string> events;
  for (int i = 0; i < 64; ++i) events.push_back(amplitudeEvent(i % n));
  const char* names[] = {"audio_site_changed", "audio_stream_removed", "amplitude"};
  std::size_t next = 0;
  for (auto _ : state) {
    const std::string& text = events[next];
    next = (next + 1) & 63;
    pugi::xml_document doc;
    if (!doc.load_buffer(text.data(), text.size())) continue;
    pugi::xml_node event = doc.child("event");
    pugi::xml_attribute name = event.attribute("name");
    int route = -1;
    for (int r = 0; r < 3; ++r) {
      if (std::string(name.value()) == names[r]) {
        route = r;
        break;
      }
    }
    if (route != 2) continue;
    pugi::xml_node stream = event.child("stream");
    auto found = byAudioStream.find(stream.attribute("id").value());
    if (found == byAudioStream.end()) continue;
    const PeerParticipant copy = found->second;
    const unsigned char level =
        static_cast<unsigned char>(stream.child("amplitude").text().as_int());
    const bool muted = std::string(stream.attribute("muted").value()) == "true";
    gDelegate.participantAmplitudeChanged(Telmora::Participant(copy.uuid, copy.site, false), level,
                                          muted);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PugixmlAmplitude)->Arg(10)->Arg(1000);
#endif

}  // namespace

BENCHMARK_MAIN();
