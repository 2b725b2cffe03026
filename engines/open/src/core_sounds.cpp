// The open core's sounds: AudioPlaySound and AudioStopSound, played through the selected speaker
// beside the meeting (sounds.h). Called on the product's threads; the ends are reported on the
// audio engine's event thread, in a meeting or not.
#include <cstdint>

#include "core_private.h"

namespace ktopen {

SoundPlayer& Core::Sounds() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!sounds_) {
    sounds_ =
        std::make_unique<SoundPlayer>([this](uint64_t id, bool ended, const std::string& why) {
          const std::string event = std::string("<event name=\"") +
                                    (ended ? "binary_playback_ended" : "binary_playback_failed") +
                                    "\">" + Tag("data", std::to_string(id)) +
                                    (ended ? "" : Tag("reason", why)) + "</event>";
          if (!ended) Trace(kAudio, 2, "sound " + std::to_string(id) + " failed: " + why);
          queues_[kAudio].PushEvent(event);
        });
  }
  return *sounds_;
}

bool Core::PlaySound(const char* data, unsigned long size) {
  if (data == nullptr) return Refuse(kAudio, "No sound data");
  if (!InitMedia(nullptr)) return Refuse(kAudio, "GStreamer is not available");
  std::string speaker;
  double gain;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    speaker = speaker_;
    gain = speaker_volume_ / 50.0;
  }
  if (speaker.empty()) {
    for (const Device& d : ListDevices(Device::kSpeaker)) {
      if (d.preferred) speaker = d.id;
    }
  }
  // The playback id is the data's address, as the host knows it: AudioStopSound names it so.
  Sounds().Play(reinterpret_cast<uintptr_t>(data), data, size, speaker, gain);
  return true;
}

bool Core::StopSound(const char* data) {
  if (data == nullptr) return Refuse(kAudio, "No sound data");
  if (!Sounds().Stop(reinterpret_cast<uintptr_t>(data))) {
    return Refuse(kAudio, "No sound is playing from that data");
  }
  return true;
}

}  // namespace ktopen
