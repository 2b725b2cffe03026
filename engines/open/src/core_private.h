// The open core's one object: Core holds the meeting that both open engines share, and is
// implemented by responsibility: core.cpp (the engines' C functions, events, errors),
// core_session.cpp (joining and leaving the room), core_publishing.cpp (the local microphone and
// camera), core_subscriptions.cpp (remote publishers), core_commands.cpp (commands and device
// state) and core_statistics.cpp (meters and conditions).
//
// Threads: the product calls in on any thread (Connect, SetRoot, GetState, FrameReady, ...); the
// worker thread (worker.h) owns the Janus session and the peers and runs every function marked
// "worker" below; GStreamer's threads report levels, candidates and frames through the peers'
// callbacks, which only post to the worker or emit. mutex_ guards the settings the product and the
// worker share; emit_mutex_ guards whether a meeting is on. Events reach the product on the two
// event queues' own threads, never while a lock of the core is held.
#ifndef KTOPEN_CORE_PRIVATE_H
#define KTOPEN_CORE_PRIVATE_H

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "address.h"
#include "core.h"
#include "devices.h"
#include "documents.h"
#include "event_queue.h"
#include "hotplug.h"
#include "janus.h"
#include "media.h"
#include "network_video.h"
#include "presence.h"
#include "reconnect.h"
#include "screens.h"
#include "sounds.h"
#include "stream_publisher.h"
#include "worker.h"

namespace ktopen {

using ktengine::Escape;
using ktengine::EventQueue;
using ktengine::Fail;
using ktengine::Node;
using ktengine::ReadFlag;
using ktengine::StreamEvent;
using ktengine::Tag;
using ktengine::TextOf;

inline constexpr auto kJoinLimit = std::chrono::seconds(20);
inline constexpr auto kLeaveLimit = std::chrono::seconds(10);
inline constexpr int kAnnouncedWidth =
    640;  // what remote cameras are announced with (they send that)
inline constexpr int kAnnouncedHeight = 480;
inline constexpr int kStatisticsEverySeconds = 4;  // how often audio_update_conditions is measured

inline std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}
// 0..100 from a level in dB (full scale): -50 dB and below is 0.
inline int Amplitude(double rms_db) {
  return static_cast<int>(std::clamp((rms_db + 50.0) * 2.0, 0.0, 100.0));
}

struct Remote {
  std::string feed, display, audio_id, video_id;
  uint64_t handle = 0;
  std::unique_ptr<Subscriber> peer;
  std::shared_ptr<FrameSlot> slot;
  PeerStats last;
  Presence presence;   // as the publisher last stated it
  bool extra = false;  // a further video stream of presence.owner (no audio of its own)
};

// A further video stream that we publish (a shared screen or network video): a publisher of its
// own in the room, whose stated owner is us. Owned by the worker thread.
struct Further {
  std::string key;   // the screen's device id, or the network video's URL
  std::string feed;  // its publisher id in the room
  uint64_t handle = 0;
  std::unique_ptr<StreamPublisher> peer;
  bool negotiated = false, offer_sent = false;
  std::vector<std::pair<unsigned, std::string>> pending_candidates;
  PeerStats last;  // at the last conditions measurement
};

// What a further stream sends and how it is stated to the room.
struct FurtherStream {
  std::string key, label, profile;
  std::string feed;  // its publisher id in the room
  int width = 0, height = 0, fps = kScreenFps;
  Screen screen;        // a shared screen, when network.uri is empty
  VideoSource network;  // network video
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
  void SetOrientation(int degrees);
  bool PlaySound(const char* data, unsigned long size);
  bool StopSound(const char* data);
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
  bool StartPublishing(std::string* error);
  void Negotiate();
  void SendCandidate(uint64_t handle, unsigned mline, const std::string& candidate);
  void AddRemote(const RoomPublisher& publisher);
  bool Subscribe(Remote* remote, std::string* error);
  void RemoveRemote(const std::string& feed);
  // The remote whose video stream this is, or null. Stream ids are not publisher ids: a hostile
  // id gets a safe stream id of its own (peer_names.h). Worker thread.
  Remote* RemoteByVideoId(const std::string& video_id) const;
  void ApplyPlayback();
  // The local participant's state as the others see it, and its announcement to the room.
  Presence LocalPresenceLocked() const;
  void AnnouncePresence();
  void OnPresence(const std::string& feed, const std::string& display);
  void Tick();
  void Conditions();
  // A device in use that disappeared is replaced by the default one (core_hotplug.cpp).
  void FollowRemovedDevices();
  // reconnect.cpp: watching the server, suspending the meeting when it is lost, rejoining.
  void WatchServer();
  void CheckServer();
  void ServerLost(const std::string& why);
  void DropSession();
  void TryRejoin();

  bool AudioCommand(const Node& root, bool apply, std::string* error);
  bool VideoCommand(const Node& root, bool apply, std::string* error);
  // A device's settings as a command gives them: checked by DeviceCommand, then applied.
  struct DeviceSettings {
    bool has_enable = false, on = false;
    long volume = -1;
    std::string profile;
  };
  bool DeviceCommand(const Node& d, Device::Kind kind, bool apply, std::string* error);
  void ApplyDevice(Device::Kind kind, const Device& device, const DeviceSettings& settings);
  bool Render(const Node& s, bool apply, std::string* error);
  // Further streams (core_further.cpp): a screen in the devices of a video command, and the
  // local_url element; the worker's side of publishing them.
  bool ScreenCommand(const Node& d, const Screen& screen, bool apply, std::string* error);
  bool NetworkVideoCommand(const Node& node, bool apply, std::string* error);
  bool EnableFurther(const FurtherStream& stream, const std::string& device_name,
                     std::string* error);
  void DisableFurther(const std::string& key);
  void StartFurther(const FurtherStream& stream);
  void NegotiateFurther(const std::string& key);
  void FurtherCandidate(const std::string& key, unsigned mline, const std::string& candidate);
  void StopFurther(const std::string& key);
  double GainLocked(const std::string& audio_id) const;

  SoundPlayer& Sounds();

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
  std::map<std::string, bool> muted_;                         // audio stream -> muted by its sender
  int rotation_ = 0;            // the camera's picture turned clockwise, in degrees
  std::string local_video_id_;  // announced local camera stream
  std::shared_ptr<FrameSlot> self_view_ = std::make_shared<FrameSlot>();  // the local camera's
  std::unique_ptr<SoundPlayer> sounds_;  // made with the first sound

  std::map<std::string, std::string> further_ids_;  // further stream's key -> local stream id
  std::map<std::string, VideoSource> probed_;       // network sources read by a command's check
  int further_count_ = 0;                           // further streams started in this meeting

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
  std::map<std::string, std::unique_ptr<Further>> furthers_;  // by key
  DeviceWatch device_watch_;                                  // while in a meeting
  int ticks_ = 0;
  std::string conditions_;  // the last audio_update_conditions event, repeated between measurements
  std::string video_conditions_;  // the last video_update_conditions event, likewise
  PeerStats last_sent_;
  rusage last_usage_{};
  std::chrono::steady_clock::time_point last_conditions_;
  std::unique_ptr<ServerWatch> watch_;  // while joined and the server answers
  bool server_lost_ = false;
  uint64_t lost_session_ = 0;  // the session the server may still hold after a loss
  std::chrono::steady_clock::time_point next_lost_report_, next_rejoin_;
};

}  // namespace ktopen

#endif  // KTOPEN_CORE_PRIVATE_H
