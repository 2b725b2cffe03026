// The scripted meeting's life cycle: the one Meeting, its switches and queries, joining (the cast
// of a new meeting), ending, and the events it queues. Runs on the product's threads (joining and
// leaving through the engines' Connect and Disconnect), on the control API's callers (tests, the
// demo), and on the exit handler; every member takes the Meeting's locks itself (meeting.h).
#include "meeting.h"

#include <algorithm>

#include "ktengine/meeting_url.h"
#include "simulation.h"

namespace ktsim {

Meeting& Meeting::Get() {
  static Meeting* const meeting = new Meeting();  // never destroyed, like the Simulation
  return *meeting;
}

Meeting::Meeting() { ResetDevicesLocked(); }

void Meeting::Enable(bool on) {
  if (!on) End();
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_ = on;
}

bool Meeting::enabled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return enabled_;
}

void Meeting::Configure(const std::string& options) {
  std::lock_guard<std::mutex> lock(mutex_);
  base_options_ = options;
}

bool Meeting::running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

int Meeting::participants() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_ ? static_cast<int>(bots_.size()) : 0;
}

bool Meeting::clock_running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clock_running_;
}

int Meeting::Volume(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = volumes_.find(id);
  return it == volumes_.end() ? -1 : it->second;
}

void Meeting::Reset() {
  End();
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_ = false;
  base_options_.clear();
  ResetDevicesLocked();
}

bool Meeting::Connect(ktsim_engine engine, const std::string& url, const std::string& display_name,
                      const std::string& uuid, std::string* error) {
  ktengine::MeetingUrl parsed;
  if (!ktengine::ParseMeetingUrl(url, engine == KTSIM_VIDEO ? '6' : '4', &parsed)) {
    return Fail(error, "Invalid server URL '" + url + "'");
  }
  const std::string& meeting_id = parsed.meeting;
  const std::string& query = parsed.query;

  std::lock_guard<std::mutex> life(lifecycle_);
  std::lock_guard<std::mutex> lock(mutex_);
  local_uuid_ = uuid;
  local_name_ = display_name;
  if (engine == KTSIM_AUDIO) {
    audio_connected_ = true;
    if (running_ && announced_) {
      for (auto& entry : bots_) AnnounceAudioLocked(entry.second);
    }
    return true;
  }
  if (!running_) StartLocked(meeting_id, query);
  return true;
}

void Meeting::StartLocked(const std::string& meeting_id, const std::string& query) {
  options_ = Options();
  options_.Apply(base_options_);
  options_.Apply(query);
  rng_.seed(options_.has_seed ? options_.seed : Fnv1a(meeting_id));
  running_ = true;
  announced_ = false;
  tag_ = next_tag_++;
  // Local sources switched on before the join stay, now under the local participant's identity.
  ids_.clear();
  for (auto it = streams_.begin(); it != streams_.end();) {
    if (!it->second.local) {
      it = streams_.erase(it);
      continue;
    }
    it->second.owner = it->second.email = local_uuid_;
    it->second.announced = false;
    ids_.insert(it->first);
    ++it;
  }
  bots_.clear();
  pending_video_.clear();
  pending_audio_removal_.clear();
  speaker_.clear();
  arrivals_ = 0;
  local_burst_ = 0;
  CastLocked();

  const Clock::time_point now = Clock::now();
  start_at_ = now + std::chrono::milliseconds(options_.start);
  turn_end_ = start_at_ + std::chrono::milliseconds(Uniform(300, 1200));
  next_conditions_ = start_at_ + std::chrono::milliseconds(options_.conditions);
  next_churn_ = start_at_ + std::chrono::milliseconds(
                                static_cast<int64_t>(options_.churn * 1000 * (0.5 + Unit())));
  next_occasional_ = start_at_ + std::chrono::milliseconds(Uniform(6000, 15000));
  EnsureClockLocked();
}

void Meeting::End() {
  std::lock_guard<std::mutex> life(lifecycle_);
  uint64_t tag = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tag = tag_;
    for (auto& entry : streams_) {
      if (entry.second.frame) frames::Release(entry.second.frame);
    }
    running_ = false;
    audio_connected_ = false;
    announced_ = false;
    tag_ = 0;
    bots_.clear();
    streams_.clear();
    pending_video_.clear();
    pending_audio_removal_.clear();
    sounds_.clear();
    for (VideoDevice& device : cameras_) device.stream_id.clear();
    stop_ = true;
    wake_.notify_all();
  }
  if (clock_.joinable()) clock_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = false;
  }
  if (tag != 0) {
    Simulation::Get().queue(KTSIM_AUDIO).Discard(tag, false);
    Simulation::Get().queue(KTSIM_VIDEO).Discard(tag, false);
  }
}

// ---- Events and chance -----------------------------------------------------------------------

uint64_t Meeting::Send(ktsim_engine engine, const std::string& xml) {
  return Simulation::Get().queue(engine).PushEvent(xml, tag_);
}

uint32_t Meeting::Rand() { return static_cast<uint32_t>(rng_()); }

int Meeting::Uniform(int lo, int hi) {
  return lo + static_cast<int>(Rand() % static_cast<uint32_t>(hi - lo + 1));
}

double Meeting::Unit() { return Rand() / 4294967296.0; }

}  // namespace ktsim
