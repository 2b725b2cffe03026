#include "core.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "address.h"
#include "devices.h"
#include "documents.h"
#include "event_queue.h"
#include "exit_guard.h"
#include "janus.h"
#include "media.h"
#include "numbers.h"
#include "worker.h"

namespace ktopen {

using ktengine::Escape;
using ktengine::EventQueue;
using ktengine::Fail;
using ktengine::Node;
using ktengine::ReadFlag;
using ktengine::ReadInt;
using ktengine::StreamEvent;
using ktengine::Tag;
using ktengine::TextOf;

namespace {

constexpr auto kJoinLimit = std::chrono::seconds(20);
constexpr auto kLeaveLimit = std::chrono::seconds(10);
constexpr int kAnnouncedWidth = 640;  // what remote cameras are announced with (they send that)
constexpr int kAnnouncedHeight = 480;
constexpr int kStatisticsEverySeconds = 4;  // how often audio_update_conditions is measured

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}
// 0..100 from a level in dB (full scale): -50 dB and below is 0.
int Amplitude(double rms_db) {
  return static_cast<int>(std::clamp((rms_db + 50.0) * 2.0, 0.0, 100.0));
}

struct Remote {
  std::string feed, display, audio_id, video_id;
  uint64_t handle = 0;
  std::unique_ptr<Subscriber> peer;
  std::shared_ptr<FrameSlot> slot;
  PeerStats last;
};

class Core {
 public:
  static Core& Get() {
    static Core* core = new Core();  // never destroyed: engine threads may outlive statics
    return *core;
  }

  EventQueue& queue(EngineId engine) { return queues_[engine]; }

  bool Connect(EngineId engine, const std::string& url, const std::string& display,
               const std::string& uuid);
  void Disconnect(EngineId engine);
  bool SetRoot(EngineId engine, const std::string& xml);
  int GetLastError(EngineId engine, char* buffer, int size);
  const char* GetState(EngineId engine);
  bool Refuse(EngineId engine, const std::string& why);
  int FrameReady(const std::string& id);
  void Trace(EngineId engine, unsigned level, const std::string& text);
  void Exit();

 private:
  Core() = default;

  // Event delivery: dropped unless a meeting is on (and, with `generation`, still the same one).
  uint64_t Emit(EngineId engine, const std::string& xml, uint64_t generation = 0);
  uint64_t generation() {
    std::lock_guard<std::mutex> lock(emit_mutex_);
    return generation_;
  }

  // On the worker thread.
  bool Join(const Target& target, const std::string& display, const std::string& uuid,
            std::string* error);
  void Leave();
  void OnJanusEvent(const Json& event);
  void Negotiate();
  void SendCandidate(uint64_t handle, unsigned mline, const std::string& candidate);
  void AddRemote(const RoomPublisher& publisher);
  bool Subscribe(Remote* remote, std::string* error);
  void RemoveRemote(const std::string& feed);
  void ApplyPlayback();
  void Tick();
  void Conditions();

  bool AudioCommand(const Node& root, bool apply, std::string* error);
  bool VideoCommand(const Node& root, bool apply, std::string* error);
  bool DeviceCommand(const Node& d, Device::Kind kind, bool apply, std::string* error);
  bool Render(const Node& s, bool apply, std::string* error);
  double GainLocked(const std::string& audio_id) const;

  EventQueue queues_[2];

  std::mutex emit_mutex_;
  uint64_t generation_ = 1;  // GUARDED_BY(emit_mutex_)
  bool in_meeting_ = false;  // GUARDED_BY(emit_mutex_)

  mutable std::mutex mutex_;  // everything below up to the worker's own state
  std::string errors_[2];
  std::deque<std::string> states_;  // handed out; kept until the process ends
  bool connected_[2] = {false, false};
  bool joined_ = false;
  Target target_;
  std::string uuid_, display_;
  std::string mic_, speaker_, camera_;
  bool mic_on_ = false, speaker_on_ = false, camera_on_ = false;
  int mic_volume_ = 100, speaker_volume_ = 50;
  std::string profile_ = "VP8 640x480 (30FPS)";
  std::map<std::string, int> stream_volumes_;
  std::map<std::string, bool> switches_;
  std::set<std::string> audio_ids_;                           // announced in this process
  std::map<std::string, std::shared_ptr<FrameSlot>> videos_;  // remote video streams present
  std::map<std::string, int> levels_;                         // audio stream -> amplitude
  std::string local_video_id_;                                // announced local camera stream

  // The worker's own state.
  Worker worker_;
  Janus janus_;
  std::string server_ip_, local_ip_;
  uint64_t pub_handle_ = 0;
  std::string my_id_, private_id_;
  std::unique_ptr<Publisher> publisher_;
  bool negotiated_ = false, offer_sent_ = false;
  std::vector<std::pair<unsigned, std::string>> pending_candidates_;
  std::map<std::string, std::unique_ptr<Remote>> remotes_;
  int ticks_ = 0;
  std::string conditions_;  // the last audio_update_conditions event, repeated between measurements
  PeerStats last_sent_;
  rusage last_usage_{};
  std::chrono::steady_clock::time_point last_conditions_;
};

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

// ---- Joining and leaving -----------------------------------------------------------------------

bool Core::Connect(EngineId engine, const std::string& url, const std::string& display,
                   const std::string& uuid) {
  Target target;
  std::string error;
  if (!ParseTarget(url, engine == kAudio ? '4' : '6', Env("CONVOKE_JANUS_PORT"),
                   Env("CONVOKE_JANUS_PATH"), &target, &error)) {
    return Refuse(engine, error);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (joined_) {
      if (target.host != target_.host || target.room != target_.room || uuid != uuid_) {
        errors_[engine] = "Already in meeting '" + target_.room + "' on " + target_.host;
        return false;
      }
      connected_[engine] = true;
      return true;
    }
  }
  if (!InitMedia(&error)) return Refuse(engine, error);
  worker_.Start([this] { Tick(); }, std::chrono::milliseconds(100));
  bool ok = false;
  const bool finished = worker_.Call(
      [&, target] {
        ok = Join(target, display, uuid, &error);
        if (!ok) Leave();
      },
      kJoinLimit);
  if (!finished) return Refuse(engine, "Joining the meeting took too long");
  if (!ok) return Refuse(engine, error);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_[engine] = true;
    errors_[engine].clear();
  }
  Trace(engine, 3, "connected to " + target.base_url + " room " + target.room);
  return true;
}

bool Core::Join(const Target& target, const std::string& display, const std::string& uuid,
                std::string* error) {
  if (!ResolveAddresses(target.host, &server_ip_, &local_ip_, error)) return false;
  if (!janus_.Open(
          target.base_url,
          [this](const Json& event) { worker_.Post([this, event] { OnJanusEvent(event); }); },
          error)) {
    return false;
  }
  pub_handle_ = janus_.Attach(error);
  if (pub_handle_ == 0) return false;
  Json reply;
  std::string refusal;
  if (!janus_.Message(pub_handle_, CreateRoomRequest(target.room), "", &reply, &refusal)) {
    JsonObject* data = ObjectMember(ObjectMember(reply.object(), "plugindata"), "data");
    if (IntMember(data, "error_code") != 427) {  // 427: the room exists already
      *error = refusal;
      return false;
    }
  }
  if (!janus_.Message(pub_handle_, PublisherJoinRequest(target.room, display, uuid), "", &reply,
                      error)) {
    return false;
  }
  JsonObject* data = ObjectMember(ObjectMember(reply.object(), "plugindata"), "data");
  if (StringMember(data, "videoroom") != "joined") {
    *error = "The video room did not let us join";
    return false;
  }
  my_id_ = StringMember(data, "id");
  private_id_ = StringMember(data, "private_id");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    joined_ = true;
    target_ = target;
    uuid_ = uuid;
    display_ = display;
  }
  {
    std::lock_guard<std::mutex> lock(emit_mutex_);
    in_meeting_ = true;
    ++generation_;
  }

  // Publish the microphone and camera (silence and black frames while they are off).
  std::string mic, camera, profile;
  int width = 640, height = 480, fps = 30;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    mic = mic_on_ ? mic_ : "";
    camera = camera_on_ ? camera_ : "";
    profile = profile_;
  }
  ProfileSize(profile, &width, &height, &fps);
  PeerEvents events;
  events.negotiation_needed = [this] { worker_.Post([this] { Negotiate(); }); };
  const uint64_t handle = pub_handle_;
  events.candidate = [this, handle](unsigned mline, const std::string& candidate) {
    worker_.Post([=] { SendCandidate(handle, mline, candidate); });
  };
  events.level = [this](double db) {
    bool on;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      on = mic_on_;
    }
    if (on) Emit(kAudio, "<event name=\"input_meter\">" + Tag("meter", Amplitude(db)) + "</event>");
  };
  negotiated_ = offer_sent_ = false;
  pending_candidates_.clear();
  publisher_.reset(new Publisher(local_ip_, server_ip_, std::move(events)));
  if (!publisher_->Start(mic, camera, width, height, fps, error)) return false;
  last_conditions_ = std::chrono::steady_clock::now();
  getrusage(RUSAGE_SELF, &last_usage_);
  conditions_.clear();

  for (const RoomPublisher& publisher : AnnouncedPublishers(data)) AddRemote(publisher);
  return true;
}

void Core::Negotiate() {
  if (!publisher_ || negotiated_) return;
  negotiated_ = true;
  std::string error;
  Trace(kVideo, 4, "publishing: making an offer");
  const std::string offer = publisher_->CreateOffer(&error);
  if (offer.empty()) {
    Trace(kVideo, 2, error);
    return;
  }
  Json reply;
  if (!janus_.Message(pub_handle_, "{\"request\":\"publish\"}",
                      "{\"type\":\"offer\",\"sdp\":" + Quote(offer) + "}", &reply, &error)) {
    Trace(kVideo, 2, "publishing refused: " + error);
    return;
  }
  Trace(kVideo, 4, "publishing: offer accepted");
  offer_sent_ = true;
  for (const auto& c : pending_candidates_) janus_.Trickle(pub_handle_, c.second, c.first);
  pending_candidates_.clear();
  JsonObject* jsep = ObjectMember(reply.object(), "jsep");
  if (!jsep || !publisher_->SetRemote("answer", StringMember(jsep, "sdp"), &error)) {
    Trace(kVideo, 2, "publishing failed: " + (error.empty() ? "no answer" : error));
  }
  Trace(kVideo, 4, "publishing: answer set");
}

void Core::SendCandidate(uint64_t handle, unsigned mline, const std::string& candidate) {
  Trace(kVideo, 5, "local candidate " + candidate);
  if (!janus_.is_open()) return;
  if (handle == pub_handle_ && !offer_sent_) {
    pending_candidates_.emplace_back(mline, candidate);
    return;
  }
  janus_.Trickle(handle, candidate, static_cast<int>(mline));
}

void Core::OnJanusEvent(const Json& event) {
  JsonObject* root = event.object();
  const std::string kind = StringMember(root, "janus");
  const uint64_t sender = static_cast<uint64_t>(IntMember(root, "sender"));
  if (kind == "event" && sender == pub_handle_) {
    JsonObject* data = ObjectMember(ObjectMember(root, "plugindata"), "data");
    for (const RoomPublisher& publisher : AnnouncedPublishers(data)) AddRemote(publisher);
    const std::string departed = DepartedPublisher(data);
    if (!departed.empty()) RemoveRemote(departed);
  } else if (kind == "trickle") {
    JsonObject* candidate = ObjectMember(root, "candidate");
    const std::string text = StringMember(candidate, "candidate");
    if (text.empty()) return;
    for (auto& entry : remotes_) {
      if (entry.second->handle == sender && entry.second->peer) {
        entry.second->peer->AddRemoteCandidate(
            static_cast<unsigned>(IntMember(candidate, "sdpMLineIndex")), text);
      }
    }
  } else if (kind == "timeout") {
    Trace(kVideo, 2, "the meeting server dropped the session");
  }
}

void Core::AddRemote(const RoomPublisher& publisher) {
  const std::string& feed = publisher.id;
  if (feed == my_id_ || remotes_.count(feed)) return;
  const bool video = publisher.video;
  auto remote = std::make_unique<Remote>();
  remote->feed = feed;
  remote->display = publisher.display;
  remote->audio_id = feed + "/audio";
  if (video) {
    remote->video_id = feed + "/video";
    remote->slot = std::make_shared<FrameSlot>();
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    audio_ids_.insert(remote->audio_id);
    levels_[remote->audio_id] = 0;
    if (video) videos_[remote->video_id] = remote->slot;
  }
  Emit(kAudio, StreamEvent("audio_site_changed", remote->audio_id,
                           Tag("site", remote->display) + Tag("email", feed)));
  if (video) {
    Emit(kVideo, StreamEvent("video_site_changed", remote->video_id,
                             Tag("email", feed) + Tag("site", remote->display) +
                                 Tag("name", "Camera") + Tag("codecName", "VP8 640x480 (30FPS)") +
                                 Tag("local", "false") + Tag("active", "true") + Tag("layout", 0) +
                                 Tag("width", kAnnouncedWidth) + Tag("height", kAnnouncedHeight)));
  }
  Remote* r = remote.get();
  remotes_[feed] = std::move(remote);
  std::string error;
  if (!Subscribe(r, &error)) Trace(kVideo, 2, "could not receive " + feed + ": " + error);
}

bool Core::Subscribe(Remote* remote, std::string* error) {
  remote->handle = janus_.Attach(error);
  if (remote->handle == 0) return false;
  Json reply;
  if (!janus_.Message(remote->handle,
                      SubscriberJoinRequest(target_.room, remote->feed, private_id_), "", &reply,
                      error)) {
    return false;
  }
  JsonObject* jsep = ObjectMember(reply.object(), "jsep");
  if (!jsep) return Fail(error, "the video room sent no offer");
  PeerEvents events;
  const uint64_t handle = remote->handle;
  events.candidate = [this, handle](unsigned mline, const std::string& candidate) {
    worker_.Post([=] { SendCandidate(handle, mline, candidate); });
  };
  const std::string audio_id = remote->audio_id;
  const uint64_t generation = this->generation();
  events.level = [this, audio_id, generation](double db) {
    const int amplitude = Amplitude(db);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      levels_[audio_id] = amplitude;
    }
    // A muted microphone sends digital silence.
    Emit(kAudio,
         "<event name=\"amplitude\"><stream id=\"" + Escape(audio_id) + "\" muted=\"" +
             (db < -90 ? "true" : "false") + "\">" + Tag("amplitude", amplitude) +
             "</stream></event>",
         generation);
  };
  const std::string video_id = remote->video_id;
  events.video_started = [this, video_id] { Trace(kVideo, 3, "first frame of " + video_id); };
  remote->peer.reset(new Subscriber(local_ip_, server_ip_, std::move(events)));
  std::string speaker;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    speaker = speaker_on_ ? speaker_ : "";
  }
  if (!remote->peer->Start(speaker, error)) return false;
  ApplyPlayback();
  if (remote->slot && remote->slot->rendering()) {
    // Rendering was asked for before the subscription was ready: Render() is repeated below.
  }
  if (!remote->peer->SetRemote("offer", StringMember(jsep, "sdp"), error)) return false;
  const std::string answer = remote->peer->CreateAnswer(error);
  if (answer.empty()) return false;
  return janus_.Message(remote->handle,
                        "{\"request\":\"start\",\"room\":" + Quote(target_.room) + "}",
                        "{\"type\":\"answer\",\"sdp\":" + Quote(answer) + "}", &reply, error);
}

void Core::RemoveRemote(const std::string& feed) {
  auto it = remotes_.find(feed);
  if (it == remotes_.end()) return;
  std::unique_ptr<Remote> remote = std::move(it->second);
  remotes_.erase(it);
  const uint64_t generation = this->generation();
  const std::string audio_event = StreamEvent("audio_stream_removed", remote->audio_id, "");
  uint64_t seq = 0;
  if (!remote->video_id.empty()) {
    seq = Emit(kVideo, StreamEvent("video_stream_removed", remote->video_id, ""), generation);
  }
  if (seq == 0) {
    Emit(kAudio, audio_event, generation);
  } else {
    // The participant's audio leaves after its video has been delivered (the product drops the
    // whole participant on the audio event).
    std::thread([this, seq, generation, audio_event] {
      queues_[kVideo].WaitFor(seq);
      Emit(kAudio, audio_event, generation);
    }).detach();
  }
  if (remote->peer) remote->peer->Stop();
  if (remote->slot) remote->slot->Stop();
  if (remote->handle) janus_.Detach(remote->handle);
  std::lock_guard<std::mutex> lock(mutex_);
  videos_.erase(remote->video_id);
  levels_.erase(remote->audio_id);
}

void Core::Leave() {
  for (auto& entry : remotes_) {
    if (entry.second->peer) entry.second->peer->Stop();
    if (entry.second->slot) entry.second->slot->Stop();
  }
  if (publisher_) publisher_->Stop();
  janus_.Close();  // Janus tells the others that we left
  remotes_.clear();
  publisher_.reset();
  pub_handle_ = 0;
  my_id_.clear();
  private_id_.clear();
  std::lock_guard<std::mutex> lock(mutex_);
  joined_ = false;
  connected_[kAudio] = connected_[kVideo] = false;
  videos_.clear();
  levels_.clear();
  local_video_id_.clear();
}

void Core::Disconnect(EngineId engine) {
  bool joined;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_[engine] = false;
    joined = joined_;
  }
  if (joined) {
    {
      std::lock_guard<std::mutex> lock(emit_mutex_);
      in_meeting_ = false;
      ++generation_;
    }
    worker_.Call([this] { Leave(); }, kLeaveLimit);
    Trace(engine, 3, "disconnected");
  }
  for (EventQueue& q : queues_) {
    q.Discard(0, !q.OnWorkerThread());
    q.StopWhenIdle();
  }
}

void Core::Exit() {
  bool joined;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    joined = joined_;
  }
  {
    std::lock_guard<std::mutex> lock(emit_mutex_);
    in_meeting_ = false;
    ++generation_;
  }
  for (EventQueue& q : queues_) q.Exit(std::chrono::milliseconds(500));
  if (!joined || worker_.Call([this] { Leave(); }, std::chrono::seconds(3))) worker_.Stop();
}

// ---- Periodic figures --------------------------------------------------------------------------

double Core::GainLocked(const std::string& audio_id) const {
  auto it = stream_volumes_.find(audio_id);
  const int stream = it == stream_volumes_.end() ? 50 : it->second;
  return (stream / 50.0) * (speaker_volume_ / 50.0);
}

void Core::ApplyPlayback() {
  std::map<std::string, double> gains;
  bool muted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    muted = !speaker_on_;
    for (auto& entry : remotes_) gains[entry.first] = GainLocked(entry.second->audio_id);
  }
  for (auto& entry : remotes_) {
    if (entry.second->peer) entry.second->peer->SetPlayback(gains[entry.first], muted);
  }
}

void Core::Tick() {
  if (!publisher_) return;
  int loudest = 0;
  bool speakers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    speakers = speaker_on_;
    for (const auto& entry : levels_) {
      loudest = std::max(loudest, static_cast<int>(entry.second * GainLocked(entry.first)));
    }
  }
  if (speakers) {
    Emit(kAudio,
         "<event name=\"output_meter\">" + Tag("meter", std::min(100, loudest)) + "</event>");
  }
  if (++ticks_ % 10 == 0) Conditions();
}

void Core::Conditions() {
  // Asking webrtcbin for its statistics is costly (every stream, transport and candidate is
  // described anew): the figures are measured every few seconds and reported every second.
  if (ticks_ % (10 * kStatisticsEverySeconds) != 0 && !conditions_.empty()) {
    Emit(kAudio, conditions_);
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  const double seconds =
      std::max(0.001, std::chrono::duration<double>(now - last_conditions_).count());
  last_conditions_ = now;
  PeerStats sent = publisher_->Stats();
  uint64_t received = 0, lost = 0, packets = 0;
  double jitter = 0;
  for (auto& entry : remotes_) {
    Remote& r = *entry.second;
    if (!r.peer) continue;
    PeerStats s = r.peer->Stats();
    received += s.bytes_received - std::min(s.bytes_received, r.last.bytes_received);
    packets += s.packets_received - std::min(s.packets_received, r.last.packets_received);
    if (s.packets_lost > r.last.packets_lost) lost += s.packets_lost - r.last.packets_lost;
    jitter = std::max(jitter, s.jitter_s);
    r.last = s;
  }
  const uint64_t sent_bytes = sent.bytes_sent - std::min(sent.bytes_sent, last_sent_.bytes_sent);
  last_sent_ = sent;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto cpu_seconds = [](const rusage& u) {
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
  };
  const long cores = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
  const int cpu = static_cast<int>(100.0 * (cpu_seconds(usage) - cpu_seconds(last_usage_)) /
                                   seconds / static_cast<double>(cores));
  last_usage_ = usage;
  const int down_loss = packets + lost > 0 ? static_cast<int>(100 * lost / (packets + lost)) : 0;
  const int up_loss = static_cast<int>(sent.fraction_lost * 100);
  const int worst = std::max(down_loss, up_loss);
  const int bars = worst < 1 ? 5 : worst < 3 ? 4 : worst < 8 ? 3 : worst < 15 ? 2 : 1;
  const int latency = static_cast<int>(sent.round_trip_s * 500);  // one way
  conditions_ =
      "<event name=\"audio_update_conditions\"><conditions>" +
      Tag("received", static_cast<long>(received / seconds)) +
      Tag("sent", static_cast<long>(sent_bytes / seconds)) + Tag("data_bytes_dropped", 0) +
      Tag("ctrl_bytes_dropped", 0) + Tag("cpu_usage", cpu) + Tag("bars", bars) +
      "<upstream loss=\"" + std::to_string(up_loss) + "\" latency=\"" + std::to_string(latency) +
      "\"/><downstream loss=\"" + std::to_string(down_loss) + "\" latency=\"" +
      std::to_string(latency + static_cast<int>(jitter * 1000)) + "\"/></conditions></event>";
  Emit(kAudio, conditions_);
}

// ---- Commands ----------------------------------------------------------------------------------

bool Core::SetRoot(EngineId engine, const std::string& xml) {
  std::string why;
  std::unique_ptr<Node> root = ktengine::ParseCommand(xml, &why);
  if (!root) return Refuse(engine, "Malformed command: " + why);
  const char* expected = engine == kVideo ? "video" : "audio";
  if (root->name != expected) {
    return Refuse(engine, std::string("Unsupported command <") + root->name + ">, expected <" +
                              expected + ">");
  }
  if (root->children.empty())
    return Refuse(engine, std::string("Empty <") + expected + "> command");
  std::string error;
  InitMedia(nullptr);
  const bool audio = engine == kAudio;
  if (!(audio ? AudioCommand(*root, false, &error) : VideoCommand(*root, false, &error))) {
    return Refuse(engine, error);
  }
  audio ? AudioCommand(*root, true, &error) : VideoCommand(*root, true, &error);
  return true;
}

bool Core::DeviceCommand(const Node& d, Device::Kind kind, bool apply, std::string* error) {
  const char* what = kind == Device::kMicrophone ? "audio input"
                     : kind == Device::kSpeaker  ? "audio output"
                                                 : "video";
  const std::string* id = d.Attribute("id");
  if (d.name != "device" || id == nullptr || id->empty()) {
    return Fail(error, std::string("Malformed ") + what + " device element");
  }
  ktopen::Device found;
  if (!FindDevice(kind, *id, &found))
    return Fail(error, std::string("Unknown ") + what + " device '" + *id + "'");
  if (d.children.empty()) return Fail(error, "Nothing to change for device '" + *id + "'");
  bool on = false, has_enable = false;
  long volume = -1;
  std::string profile;
  for (const auto& setting : d.children) {
    if (setting->name == "enable") {
      if (!ReadFlag(*setting, &on, error)) return false;
      has_enable = true;
    } else if (setting->name == "volume" && kind != Device::kCamera) {
      if (!ReadInt(setting->text, 0, 255, &volume)) {
        return Fail(error, "Invalid volume '" + setting->text + "'");
      }
    } else if (setting->name == "profile") {
      profile = setting->text;
      if (kind != Device::kCamera && profile.compare(0, 5, "opus-") != 0) {
        return Fail(error, "Unsupported audio profile '" + profile + "'");
      }
      int w, h, fps;
      if (kind == Device::kCamera && !ProfileSize(profile, &w, &h, &fps)) {
        return Fail(error, "Unsupported profile '" + profile + "' for video device '" + *id + "'");
      }
    } else if (kind == Device::kCamera && (setting->name == "site" || setting->name == "name")) {
      // Shown to others through the meeting's display name already.
    } else {
      return Fail(error, "Unsupported element <" + setting->name + "> in device '" + *id + "'");
    }
  }
  if (kind == Device::kCamera && has_enable && on && profile.empty()) {
    return Fail(error, "Missing <profile> for video device '" + *id + "'");
  }
  if (!apply) return true;
  std::unique_lock<std::mutex> lock(mutex_);
  if (kind == Device::kMicrophone) {
    if (has_enable && (on || *id == mic_)) mic_on_ = on, mic_ = *id;
    if (volume >= 0 && *id == mic_) mic_volume_ = static_cast<int>(std::min(volume, 100L));
    const std::string mic = mic_;
    const bool mic_on = mic_on_;
    const int level = mic_volume_;
    lock.unlock();
    worker_.Post([=] {
      if (publisher_) publisher_->SetMicrophone(mic, mic_on, level);
    });
  } else if (kind == Device::kSpeaker) {
    if (has_enable && (on || *id == speaker_)) speaker_on_ = on, speaker_ = *id;
    if (volume >= 0 && *id == speaker_) speaker_volume_ = static_cast<int>(volume);
    lock.unlock();
    worker_.Post([this] { ApplyPlayback(); });
  } else {
    if (has_enable && (on || *id == camera_)) camera_on_ = on, camera_ = *id;
    if (!profile.empty()) profile_ = profile;
    const std::string camera = camera_;
    const bool camera_on = camera_on_;
    int w = 640, h = 480, fps = 30;
    ProfileSize(profile_, &w, &h, &fps);
    // The local camera is a stream of the local participant while the meeting runs.
    std::string announce, remove;
    if (joined_ && camera_on && local_video_id_.empty()) {
      local_video_id_ = "local/video";
      announce = StreamEvent("video_site_changed", local_video_id_,
                             Tag("email", uuid_) + Tag("site", display_) + Tag("name", camera) +
                                 Tag("device_name", found.name) + Tag("codecName", profile_) +
                                 Tag("local", "true") + Tag("active", "true") + Tag("layout", 0) +
                                 Tag("width", w) + Tag("height", h));
    } else if (!camera_on && !local_video_id_.empty()) {
      remove = StreamEvent("video_stream_removed", local_video_id_, "");
      local_video_id_.clear();
    }
    lock.unlock();
    if (!announce.empty()) Emit(kVideo, announce);
    if (!remove.empty()) Emit(kVideo, remove);
    worker_.Post([=] {
      if (publisher_) publisher_->SetCamera(camera, camera_on, w, h, fps);
    });
  }
  return true;
}

bool Core::AudioCommand(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "input" || what == "output") {
      if (child->children.empty()) return Fail(error, "Empty <" + what + "> element");
      for (const auto& d : child->children) {
        if (!DeviceCommand(*d, what == "input" ? Device::kMicrophone : Device::kSpeaker, apply,
                           error)) {
          return false;
        }
      }
    } else if (what == "streams") {
      if (child->children.empty()) return Fail(error, "Empty <streams> element");
      for (const auto& s : child->children) {
        const std::string* id = s->Attribute("id");
        if (s->name != "stream" || id == nullptr)
          return Fail(error, "Malformed audio stream element");
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (audio_ids_.count(*id) == 0) return Fail(error, "Unknown audio stream '" + *id + "'");
        }
        const std::string* volume = TextOf(*s, "volume");
        long value = 0;
        if (volume == nullptr) return Fail(error, "Missing volume for audio stream '" + *id + "'");
        if (!ReadInt(*volume, 0, 255, &value))
          return Fail(error, "Invalid volume '" + *volume + "'");
        if (apply) {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            stream_volumes_[*id] = static_cast<int>(value);
          }
          worker_.Post([this] { ApplyPlayback(); });
        }
      }
    } else if (ktengine::IsAudioSwitch(what)) {
      bool on = false;
      if (!ktengine::ReadSwitch(*child, &on, error)) return false;
      if (apply) {
        std::lock_guard<std::mutex> lock(mutex_);
        switches_[what] = on;
      }
    } else {
      return Fail(error, "Unsupported element <" + what + "> in audio command");
    }
  }
  return true;
}

bool Core::Render(const Node& s, bool apply, std::string* error) {
  const std::string* id = s.Attribute("id");
  if (s.name != "stream" || id == nullptr) return Fail(error, "Malformed video stream element");
  std::shared_ptr<FrameSlot> slot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!local_video_id_.empty() && *id == local_video_id_) {
      return Fail(error, "Rendering the local camera is not supported by the open engines yet");
    }
    auto it = videos_.find(*id);
    if (it == videos_.end()) return Fail(error, "Unknown video stream '" + *id + "'");
    slot = it->second;
  }
  const Node* render = s.Child("render");
  const std::string* enable = render ? TextOf(*render, "enable") : TextOf(s, "enable");
  if (enable == nullptr) return Fail(error, "Missing <enable> for video stream '" + *id + "'");
  const bool on = *enable == "true";
  if (!on && *enable != "false") return Fail(error, "Invalid value '" + *enable + "' for enable");
  if (!on) {
    if (apply) {
      slot->Stop();
      const std::string feed = id->substr(0, id->rfind('/'));
      worker_.Post([this, feed] {
        auto it = remotes_.find(feed);
        if (it != remotes_.end() && it->second->peer) it->second->peer->StopRender();
      });
    }
    return true;
  }
  if (!render) return Fail(error, "Missing <render> for video stream '" + *id + "'");
  const std::string* colorspace = TextOf(*render, "colorspace");
  ktengine_pixel_format format;
  if (!colorspace) return Fail(error, "Missing <colorspace> for video stream '" + *id + "'");
  if (*colorspace == "RGB888") {
    format = KTENGINE_RGB888;
  } else if (*colorspace == "BGRA8888" || *colorspace == "ARGB8888") {
    format = KTENGINE_BGRA8888;
  } else if (*colorspace == "RGBA8888") {
    format = KTENGINE_RGBA8888;
  } else {
    return Fail(error, "Unsupported colorspace '" + *colorspace + "'");
  }
  long width = 0, height = 0;
  if (const Node* window = render->Child("window")) {
    const std::string* w = TextOf(*window, "width");
    const std::string* h = TextOf(*window, "height");
    if ((w && !ReadInt(*w, 0, 4096, &width)) || (h && !ReadInt(*h, 0, 4096, &height))) {
      return Fail(error, "Invalid window for video stream '" + *id + "'");
    }
  }
  if (width == 0 || height == 0) width = kAnnouncedWidth, height = kAnnouncedHeight;
  if (!apply) return true;
  ktengine_frame* frame =
      slot->Start(*id, format, static_cast<int>(width), static_cast<int>(height));
  const std::string feed = id->substr(0, id->rfind('/'));
  worker_.Post([=] {
    auto it = remotes_.find(feed);
    if (it != remotes_.end() && it->second->peer) {
      it->second->peer->Render(slot.get(), format, frame->width, frame->height);
    }
  });
  Emit(kVideo, ktengine::BufferReadyEvent(*id, frame));
  return true;
}

bool Core::VideoCommand(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "devices" || what == "streams") {
      if (child->children.empty()) return Fail(error, "Empty <" + what + "> element");
      for (const auto& item : child->children) {
        const bool ok = what == "devices" ? DeviceCommand(*item, Device::kCamera, apply, error)
                                          : Render(*item, apply, error);
        if (!ok) return false;
      }
    } else if (what == "local_url") {
      return Fail(error, "Network video is not supported by the open engines yet");
    } else {
      return Fail(error, "Unsupported element <" + what + "> in video command");
    }
  }
  return true;
}

// ---- State and frames --------------------------------------------------------------------------

const char* Core::GetState(EngineId engine) {
  InitMedia(nullptr);
  std::string doc;
  std::lock_guard<std::mutex> lock(mutex_);
  if (engine == kAudio) {
    auto list = [&](const char* name, Device::Kind kind, const std::string& current, bool on,
                    int volume) {
      doc += std::string("<") + name + ">";
      for (const ktopen::Device& d : ListDevices(kind)) {
        doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name) +
               Tag("preferred", d.preferred ? "true" : "false") +
               Tag("enabled", on && d.id == current ? "true" : "false");
        if (d.id == current) doc += Tag("volume", volume);
        doc += "</device>";
      }
      doc += std::string("</") + name + ">";
    };
    doc = "<audio>";
    list("inputs", Device::kMicrophone, mic_, mic_on_, mic_volume_);
    list("outputs", Device::kSpeaker, speaker_, speaker_on_, speaker_volume_);
    doc += "</audio>";
  } else {
    doc = "<video><inputs>";
    for (const ktopen::Device& d : ListDevices(Device::kCamera)) {
      doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name) +
             Tag("enabled", camera_on_ && d.id == camera_ ? "true" : "false") + "<codecs>";
      for (const std::string& codec : CameraProfiles()) {
        doc += "<codec name=\"" + Escape(codec) + "\"/>";
      }
      doc += "</codecs></device>";
    }
    doc += "</inputs></video>";
  }
  if (states_.empty() || states_.back() != doc) states_.push_back(doc);
  return states_.back().c_str();
}

int Core::FrameReady(const std::string& id) {
  std::shared_ptr<FrameSlot> slot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = videos_.find(id);
    if (it == videos_.end()) return 0;
    slot = it->second;
  }
  return slot->Take();
}

// The event queues arm the exit guard after their first delivery: by then the product's objects
// exist, so leaving the meeting at exit happens before they are destroyed.
[[maybe_unused]] const bool exit_action_set =
    (ktengine::SetExitAction([] { Core::Get().Exit(); }), true);

}  // namespace

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

}  // namespace core
}  // namespace ktopen
