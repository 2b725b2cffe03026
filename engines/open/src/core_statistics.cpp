// The open core's figures: the output meter every tick, the audio_update_conditions event measured
// every few seconds from webrtcbin's statistics and the process's CPU time, and the playback gains
// of remote audio. Runs on the worker thread (Tick is the worker's periodic task).
#include <unistd.h>

#include <algorithm>

#include "core_private.h"

namespace ktopen {

double Core::GainLocked(const std::string& audio_id) const {
  auto it = stream_volumes_.find(audio_id);
  const int stream = it == stream_volumes_.end() ? 50 : it->second;
  return (stream / 50.0) * (speaker_volume_ / 50.0);
}

void Core::ApplyPlayback() {
  std::map<std::string, double> gains;
  bool muted;
  std::string speaker;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    muted = !speaker_on_;
    speaker = speaker_on_ ? speaker_ : "";  // as Subscribe starts a peer
    for (auto& entry : remotes_) gains[entry.first] = GainLocked(entry.second->audio_id);
  }
  for (auto& entry : remotes_) {
    if (!entry.second->peer) continue;
    entry.second->peer->SetPlayback(gains[entry.first], muted);
    entry.second->peer->SetSpeaker(speaker);  // a speaker enabled during the meeting
  }
}

void Core::Tick() {
  CheckServer();
  if (!publisher_) return;
  FollowRemovedDevices();
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
  if (++ticks_ % 3 == 0) publisher_->WatchRequests();
  if (ticks_ % 10 == 0) {
    publisher_->AdaptBitrate();
    Conditions();
  }
}

void Core::Conditions() {
  // Asking webrtcbin for its statistics is costly (every stream, transport and candidate is
  // described anew): the figures are measured every few seconds and reported every second.
  if (ticks_ % (10 * kStatisticsEverySeconds) != 0 && !conditions_.empty()) {
    Emit(kAudio, conditions_);
    Emit(kVideo, video_conditions_);
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  const double seconds =
      std::max(0.001, std::chrono::duration<double>(now - last_conditions_).count());
  last_conditions_ = now;
  PeerStats sent = publisher_->Stats();
  uint64_t received = 0, lost = 0, packets = 0, video_received = 0;
  double jitter = 0;
  for (auto& entry : remotes_) {
    Remote& r = *entry.second;
    if (!r.peer) continue;
    PeerStats s = r.peer->Stats();
    received += s.bytes_received - std::min(s.bytes_received, r.last.bytes_received);
    video_received +=
        s.video_bytes_received - std::min(s.video_bytes_received, r.last.video_bytes_received);
    packets += s.packets_received - std::min(s.packets_received, r.last.packets_received);
    if (s.packets_lost > r.last.packets_lost) lost += s.packets_lost - r.last.packets_lost;
    jitter = std::max(jitter, s.jitter_s);
    r.last = s;
  }
  const uint64_t sent_bytes = sent.bytes_sent - std::min(sent.bytes_sent, last_sent_.bytes_sent);
  // Video sent: the camera's share of the publisher, and every further stream (screens, network
  // video), which sends nothing else.
  uint64_t video_sent =
      sent.video_bytes_sent - std::min(sent.video_bytes_sent, last_sent_.video_bytes_sent);
  for (auto& entry : furthers_) {
    Further& f = *entry.second;
    const PeerStats s = f.peer->Stats();
    video_sent += s.bytes_sent - std::min(s.bytes_sent, f.last.bytes_sent);
    f.last = s;
  }
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
  // The same figures for the video streams (the product's router does not pass this event on to
  // hosts; it is sent as the video engine's part of the interface).
  video_conditions_ = "<event name=\"video_update_conditions\"><conditions>" +
                      Tag("received", static_cast<long>(video_received / seconds)) +
                      Tag("sent", static_cast<long>(video_sent / seconds)) +
                      Tag("data_bytes_dropped", 0) + Tag("ctrl_bytes_dropped", 0) +
                      Tag("cpu_usage", cpu) + Tag("bars", bars) + "</conditions></event>";
  Emit(kVideo, video_conditions_);
}
}  // namespace ktopen
