// The scripted meeting's clock: the thread that makes the meeting live (who talks, meters,
// conditions, the occasional mute, layout or camera change, churn) and ends the sounds that play.
// ClockLoop runs on the clock thread with the Meeting's mutex held except while it waits; the
// thread is started and joined under the lifecycle lock (meeting.h). PlaySound and StopSound run
// on the product's threads.
#include <algorithm>
#include <cstdlib>

#include "meeting.h"
#include "simulation.h"

namespace ktsim {

void Meeting::EnsureClockLocked() {
  if (clock_running_) return;
  if (clock_.joinable()) clock_.join();  // it ended by itself and needs the lock no more
  clock_running_ = true;
  stop_ = false;
  clock_ = std::thread(&Meeting::ClockLoop, this);
}

void Meeting::ClockLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_ && (running_ || !sounds_.empty())) {
    const Clock::time_point now = Clock::now();
    TickLocked(now);
    const int tick = running_ ? options_.tick : 20;
    wake_.wait_until(lock, now + std::chrono::milliseconds(tick), [this] { return stop_; });
  }
  clock_running_ = false;
}

void Meeting::TickLocked(Clock::time_point now) {
  // Sounds end whether or not a meeting runs.
  for (auto it = sounds_.begin(); it != sounds_.end();) {
    if (now < it->second.end) {
      ++it;
      continue;
    }
    const std::string id = std::to_string(reinterpret_cast<uintptr_t>(it->first));
    Send(KTSIM_AUDIO, std::string("<event name=\"") +
                          (it->second.fails ? "binary_playback_failed" : "binary_playback_ended") +
                          "\">" + Tag("data", id) + "</event>");
    it = sounds_.erase(it);
  }
  if (!running_ || now < start_at_) return;

  if (!announced_) {
    announced_ = true;
    for (auto& entry : bots_) AnnounceAudioLocked(entry.second);
    for (auto& entry : streams_) AnnounceVideoLocked(entry.second);
    pending_video_.clear();
    return;
  }
  if (Simulation::Get().queue(KTSIM_VIDEO).Delivered(video_removal_seq_)) {
    for (const std::string& id : pending_audio_removal_) {
      if (audio_connected_) Send(KTSIM_AUDIO, StreamEvent("audio_stream_removed", id, ""));
    }
    pending_audio_removal_.clear();
  }
  for (const std::string& id : pending_video_) {
    auto it = streams_.find(id);
    if (it != streams_.end() && !it->second.announced) AnnounceVideoLocked(it->second);
  }
  pending_video_.clear();

  TalkLocked(now);
  MetersLocked();
  if (now >= next_conditions_) {
    next_conditions_ = now + std::chrono::milliseconds(options_.conditions);
    ConditionsLocked();
  }
  if (options_.churn > 0 && now >= next_churn_) {
    next_churn_ = now + std::chrono::milliseconds(
                            static_cast<int64_t>(options_.churn * 1000 * (0.5 + Unit())));
    const int present = static_cast<int>(bots_.size());
    const int target = options_.participants;
    const bool arrive =
        present < target - 1 || (present <= target + 1 && Unit() < 0.5) || present == 0;
    if (arrive) {
      AddBotLocked(true);
    } else {
      auto it = bots_.begin();
      std::advance(it, Rand() % bots_.size());
      DepartLocked(it->first);
    }
  }
  if (now >= next_occasional_) {
    next_occasional_ = now + std::chrono::milliseconds(Uniform(8000, 20000));
    OccasionalLocked();
  }
}

void Meeting::TalkLocked(Clock::time_point now) {
  if (now >= turn_end_) {
    if (!speaker_.empty()) {  // a pause between two speakers
      speaker_.clear();
      turn_end_ = now + std::chrono::milliseconds(Uniform(300, 1500));
    } else if (!bots_.empty()) {
      double total = 0;
      for (auto& entry : bots_) total += entry.second.talk;
      double pick = Unit() * total;
      for (auto& entry : bots_) {
        pick -= entry.second.talk;
        if (pick <= 0) {
          speaker_ = entry.first;
          break;
        }
      }
      if (speaker_.empty()) speaker_ = bots_.begin()->first;
      Bot& bot = bots_[speaker_];
      if (bot.muted) {
        if (Unit() < 0.7) {
          bot.muted = false;  // "sorry, I was on mute"
        } else {
          speaker_.clear();
        }
      }
      turn_end_ = now + std::chrono::milliseconds(speaker_.empty() ? 800 : Uniform(2000, 9000));
    }
  }
  for (auto& entry : bots_) {
    Bot& bot = entry.second;
    if (bot.muted) {
      bot.amplitude = 0;
    } else if (entry.first == speaker_) {
      bot.amplitude = Unit() < 0.18 ? Uniform(2, 10) : Uniform(35, 90);  // words and gaps
    } else if (bot.backchannel > 0) {
      --bot.backchannel;
      bot.amplitude = Uniform(15, 35);
    } else {
      bot.amplitude = Uniform(0, 3);
      if (Unit() < 0.004) bot.backchannel = Uniform(2, 5);  // "mm-hm"
    }
    auto camera = streams_.find(bot.camera_id);
    if (camera != streams_.end()) camera->second.picture.speaking = bot.amplitude > 30;
    if (!bot.audio_announced) continue;
    const bool changed = bot.last_sent < 0 || bot.muted != bot.last_muted ||
                         std::abs(bot.amplitude - bot.last_sent) >= 4;
    if (!changed && ++bot.quiet_ticks < 1000 / options_.tick) continue;
    bot.quiet_ticks = 0;
    bot.last_sent = bot.amplitude;
    bot.last_muted = bot.muted;
    Send(KTSIM_AUDIO, "<event name=\"amplitude\"><stream id=\"" + bot.audio_id + "\" muted=\"" +
                          (bot.muted ? "true" : "false") + "\">" + Tag("amplitude", bot.amplitude) +
                          "</stream></event>");
  }
}

void Meeting::MetersLocked() {
  if (!audio_connected_) return;
  const AudioDevice* mic = nullptr;
  for (const AudioDevice& d : inputs_) mic = d.enabled ? &d : mic;
  const AudioDevice* speakers = nullptr;
  for (const AudioDevice& d : outputs_) speakers = d.enabled ? &d : speakers;
  auto volume = [this](const std::string& id, int fallback) {
    auto it = volumes_.find(id);
    return it == volumes_.end() ? fallback : it->second;
  };
  if (mic) {
    if (local_burst_ > 0) {
      --local_burst_;
    } else if (speaker_.empty() && Unit() < 0.01) {
      local_burst_ = Uniform(10, 40);
    }
    const int level = local_burst_ > 0 ? Uniform(30, 70) : Uniform(2, 8);
    Send(KTSIM_AUDIO, "<event name=\"input_meter\">" +
                          Tag("meter", std::min(100, level * volume(mic->id, 100) / 100)) +
                          "</event>");
  }
  if (speakers) {
    int loudest = 0;
    for (const auto& entry : bots_) {
      const Bot& bot = entry.second;
      if (bot.audio_announced) {
        loudest = std::max(loudest, bot.amplitude * volume(bot.audio_id, 50) / 50);
      }
    }
    Send(KTSIM_AUDIO, "<event name=\"output_meter\">" +
                          Tag("meter", std::min(100, loudest * volume(speakers->id, 50) / 50)) +
                          "</event>");
  }
}

void Meeting::ConditionsLocked() {
  int audible = 0, rendering = 0;
  for (const auto& entry : bots_) audible += entry.second.audio_announced ? 1 : 0;
  for (const auto& entry : streams_) rendering += entry.second.rendering ? 1 : 0;
  bool mic = false;
  for (const AudioDevice& d : inputs_) mic = mic || d.enabled;
  const int r = Uniform(0, 99);
  const int bars = r < 80 ? 5 : r < 95 ? 4 : 3;
  const std::string common = Tag("data_bytes_dropped", Uniform(0, 99) < 5 ? Uniform(40, 800) : 0) +
                             Tag("ctrl_bytes_dropped", Uniform(0, 99) < 2 ? Uniform(10, 120) : 0) +
                             Tag("cpu_usage", Uniform(4, 15) + rendering) + Tag("bars", bars);
  if (audio_connected_) {
    Send(KTSIM_AUDIO, "<event name=\"audio_update_conditions\"><conditions>" +
                          Tag("received", 3000 * audible + Uniform(0, 400)) +
                          Tag("sent", mic ? 3000 + Uniform(0, 200) : 0) + common +
                          "<upstream loss=\"" + std::to_string(Uniform(0, 2)) + "\" latency=\"" +
                          std::to_string(Uniform(25, 45)) + "\"/><downstream loss=\"" +
                          std::to_string(Uniform(0, 3)) + "\" latency=\"" +
                          std::to_string(Uniform(30, 60)) + "\"/></conditions></event>");
  }
  int local = 0;
  for (const auto& entry : streams_) local += entry.second.local ? 1 : 0;
  Send(KTSIM_VIDEO, "<event name=\"video_update_conditions\"><conditions>" +
                        Tag("received", 90000 * rendering + Uniform(0, 5000)) +
                        Tag("sent", 120000 * local) + common + "</conditions></event>");
}

void Meeting::OccasionalLocked() {
  std::vector<Stream*> remote;
  for (auto& entry : streams_) {
    if (!entry.second.local && entry.second.announced) remote.push_back(&entry.second);
  }
  switch (Uniform(0, 3)) {
    case 0: {  // someone mutes or unmutes
      if (bots_.empty()) return;
      auto it = bots_.begin();
      std::advance(it, Rand() % bots_.size());
      if (it->first != speaker_) it->second.muted = !it->second.muted;
      return;
    }
    case 1: {  // a sender changes its layout
      if (remote.empty()) return;
      Stream& s = *remote[Rand() % remote.size()];
      s.layout = (s.layout + 1) % 3;
      Send(KTSIM_VIDEO, StreamEvent("remote_layout_changed", s.id, Tag("layout", s.layout)));
      return;
    }
    case 2: {  // a camera adapts its resolution to the link
      Stream* camera = RandomCamera(remote);
      if (camera == nullptr) return;
      Stream& s = *camera;
      const bool down = s.width > 640;
      s.width = down ? 640 : 1280;
      s.height = down ? 360 : 720;
      Send(KTSIM_VIDEO,
           StreamEvent("video_stream_size_changed", s.id,
                       "<window>" + Tag("width", s.width) + Tag("height", s.height) + "</window>"));
      return;
    }
    default: {  // someone turns the camera off or back on
      Stream* camera = RandomCamera(remote);
      if (camera == nullptr) return;
      Stream& s = *camera;
      s.active = !s.active;
      s.picture.kind = s.active ? Picture::kCamera : Picture::kCameraOff;
      AnnounceVideoLocked(s);
      return;
    }
  }
}

// ---- Sounds ----------------------------------------------------------------------------------

bool Meeting::PlaySound(const void* data, unsigned long size) {
  std::lock_guard<std::mutex> life(lifecycle_);
  std::lock_guard<std::mutex> lock(mutex_);
  // 16-bit mono at 16 kHz: 32 bytes a millisecond; too short to be a sound fails.
  const long ms = std::clamp(static_cast<long>(size / 32), 200L, 10000L);
  sounds_[data] = Sound{Clock::now() + std::chrono::milliseconds(ms), size < 4};
  EnsureClockLocked();
  return true;
}

bool Meeting::StopSound(const void* data) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sounds_.find(data);
  if (it == sounds_.end()) return false;
  it->second.end = Clock::now();  // the clock reports the end on its next tick
  wake_.notify_all();
  return true;
}

}  // namespace ktsim
