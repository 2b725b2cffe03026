// The scripted meeting: simulated participants, devices and streams shared by both engines (a
// participant's audio and video belong together), and the engines' understanding of commands.
// One class, implemented by responsibility: meeting.cpp (life cycle, joining, events),
// meeting_options.cpp, meeting_cast.cpp (who takes part), meeting_clock.cpp (the clock thread and
// sounds), meeting_commands.cpp and meeting_devices.cpp (local devices, frames, state documents).
#ifndef KTSIM_MEETING_H
#define KTSIM_MEETING_H

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "documents.h"
#include "frame.h"
#include "ktsim/ktsim.h"

namespace ktsim {

using ktengine::Escape;
using ktengine::Fail;
using ktengine::Node;
using ktengine::ReadFlag;
using ktengine::StreamEvent;
using ktengine::Tag;
using ktengine::TextOf;

// What the meeting's files share: picture sizes, and the texts and hashes of names.
constexpr int kScreenWidth = 1280, kScreenHeight = 800;
constexpr int kMaxFrameWidth = 3840, kMaxFrameHeight = 2160;

inline std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

inline uint32_t Fnv1a(const std::string& text) {
  uint32_t h = 2166136261u;
  for (unsigned char c : text) h = (h ^ c) * 16777619u;
  return h;
}

// A meeting's options (see ktsim.h for their meaning). Plain value.
struct Options {
  int participants = 4;
  bool has_seed = false;
  uint32_t seed = 0;
  double churn = 45;
  bool screen = true;
  int fps = 30;
  int muted = -1;  // -1: a third of the participants
  int phone = -1;  // -1: one from four participants up
  int tick = 100;
  int conditions = 1000;
  int start = 150;

  // Applies the key=value pairs of `query`; unknown keys and unreadable values are ignored.
  void Apply(const std::string& query);
};

// Thread safety: every member may be called from any thread. Lock order: lifecycle_, then
// mutex_, then an event queue's lock. Events are queued while mutex_ is held, so that the order of
// the meeting's events on each engine follows the order of the changes; no lock is held while the
// product runs (queues deliver on their own threads).
//
// Clock thread: started when a meeting starts or a sound plays, under lifecycle_; it ends by
// itself when neither remains, or on a stop request from End (which joins it, without mutex_).
class Meeting {
 public:
  static Meeting& Get();

  void Enable(bool on);
  bool enabled() const;
  void Configure(const std::string& options);
  bool running() const;
  int participants() const;
  bool Arrive();
  bool Depart();
  int Volume(const std::string& id) const;
  bool clock_running() const;

  // The engines' side. The caller checks enabled() first.
  bool Connect(ktsim_engine engine, const std::string& url, const std::string& display_name,
               const std::string& uuid, std::string* error);
  // Ends the meeting: no more of its events, streams removed, sounds stopped, clock joined.
  void End();
  bool Command(ktsim_engine engine, const std::string& xml, std::string* error);
  std::string State(ktsim_engine engine) const;
  bool PlaySound(const void* data, unsigned long size);
  bool StopSound(const void* data);
  // -1: not a stream of the meeting; 0: no new frame; 1: a new frame was written.
  int PollFrame(const std::string& stream_id);

  // ktsim_reset: ends the meeting, scripted mode off, options and device settings forgotten.
  void Reset();

 private:
  using Clock = std::chrono::steady_clock;

  struct AudioDevice {
    std::string id, name;
    bool preferred;
    bool enabled;
  };
  struct VideoDevice {
    std::string id, name;
    bool screen;
    std::vector<std::string> codecs;
    std::string stream_id;  // the local stream while enabled
  };
  struct Bot {
    std::string email, name, site, camera_model;
    Picture picture;
    std::string audio_id, camera_id, screen_id;
    bool phone = false;
    bool muted = false;
    bool audio_announced = false;
    double talk = 1;  // how much this participant talks
    int amplitude = 0;
    int last_sent = -1;
    bool last_muted = false;
    int quiet_ticks = 0;
    int backchannel = 0;  // ticks of a short remark left
    uint64_t joined = 0;  // arrival order
  };
  struct Stream {
    std::string id, owner, email, site, name, device_name, codec, url;
    bool local = false;
    bool active = true;
    bool announced = false;
    int layout = 0;
    int width = 640, height = 360;
    int fps = 30;
    Picture picture;
    bool rendering = false;
    ktsim_frame* frame = nullptr;
    Clock::time_point render_start;
    int64_t last_index = -1;
  };
  struct Sound {
    Clock::time_point end;
    bool fails;
  };

  Meeting();
  void ResetDevicesLocked();
  void StartLocked(const std::string& meeting_id, const std::string& query);
  // The opening cast of a new meeting: participants, who is muted, who dials in, who shares.
  void CastLocked();
  void AddScreenShareLocked(Bot& bot);
  void EnsureClockLocked();
  void ClockLoop();
  void TickLocked(Clock::time_point now);

  // Events, queued under mutex_ with the meeting's tag.
  uint64_t Send(ktsim_engine engine, const std::string& xml);  // the event's queue sequence
  void AnnounceAudioLocked(Bot& bot);
  void AnnounceVideoLocked(Stream& stream);
  void RemoveStreamLocked(const std::string& id, bool announce);
  void AddBotLocked(bool announce_now);
  void DepartLocked(const std::string& email);
  void TalkLocked(Clock::time_point now);
  void MetersLocked();
  void ConditionsLocked();
  void OccasionalLocked();
  std::string NewIdLocked();
  uint32_t Rand();
  // One of the streams showing a camera (on or off) picked at random, or null when none does.
  Stream* RandomCamera(const std::vector<Stream*>& streams);
  int Uniform(int lo, int hi);  // lo..hi inclusive
  double Unit();

  // Commands: checked first (apply false), then applied, so a refused command changes nothing.
  bool AudioCommandLocked(const Node& root, bool apply, std::string* error);
  bool AudioDevicesLocked(const Node& list, bool apply, std::string* error);  // <input>, <output>
  bool VideoCommandLocked(const Node& root, bool apply, std::string* error);
  bool VideoDeviceLocked(const Node& device, bool apply, std::string* error);
  bool LocalUrlLocked(const Node& node, bool apply, std::string* error);
  bool VideoStreamLocked(const Node& stream, bool apply, std::string* error);
  std::string AddLocalStreamLocked(const std::string& name, const std::string& device_name,
                                   const std::string& site, const std::string& codec,
                                   Picture::Kind kind);
  void StartRenderLocked(Stream& stream, ktsim_pixel_format format, int width, int height);

  std::mutex lifecycle_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;  // the clock: stop requested

  bool enabled_ = true;                        // GUARDED_BY(mutex_)
  std::string base_options_;                   // GUARDED_BY(mutex_)
  std::vector<AudioDevice> inputs_, outputs_;  // GUARDED_BY(mutex_)
  std::vector<VideoDevice> cameras_;           // GUARDED_BY(mutex_)
  std::map<std::string, int> volumes_;         // GUARDED_BY(mutex_)
  std::map<std::string, bool> switches_;       // GUARDED_BY(mutex_): tones, conditions, aec

  bool running_ = false;                    // GUARDED_BY(mutex_): a meeting runs
  bool audio_connected_ = false;            // GUARDED_BY(mutex_)
  bool announced_ = false;                  // GUARDED_BY(mutex_): the opening announcement went out
  uint64_t tag_ = 0;                        // GUARDED_BY(mutex_): event tag of the running meeting
  uint64_t next_tag_ = 1;                   // GUARDED_BY(mutex_)
  std::string local_uuid_, local_name_;     // GUARDED_BY(mutex_)
  Options options_;                         // GUARDED_BY(mutex_)
  std::mt19937 rng_;                        // GUARDED_BY(mutex_)
  std::map<std::string, Bot> bots_;         // GUARDED_BY(mutex_), by e-mail
  std::map<std::string, Stream> streams_;   // GUARDED_BY(mutex_), by id
  std::set<std::string> ids_;               // GUARDED_BY(mutex_): ids handed out in this meeting
  uint64_t arrivals_ = 0;                   // GUARDED_BY(mutex_)
  std::vector<std::string> pending_video_;  // GUARDED_BY(mutex_): announce next tick
  std::vector<std::string> pending_audio_removal_;  // GUARDED_BY(mutex_)
  uint64_t video_removal_seq_ = 0;  // GUARDED_BY(mutex_): the last video_stream_removed queued
  std::string speaker_;             // GUARDED_BY(mutex_): e-mail, "" for silence
  Clock::time_point start_at_, turn_end_, next_conditions_, next_churn_, next_occasional_;
  int local_burst_ = 0;                  // GUARDED_BY(mutex_)
  std::map<const void*, Sound> sounds_;  // GUARDED_BY(mutex_)

  std::thread clock_;           // GUARDED_BY(lifecycle_)
  bool clock_running_ = false;  // GUARDED_BY(mutex_)
  bool stop_ = false;           // GUARDED_BY(mutex_)
};

}  // namespace ktsim

#endif  // KTSIM_MEETING_H
