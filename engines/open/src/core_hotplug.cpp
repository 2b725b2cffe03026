// The open core's hot-plug: while a meeting runs, a microphone, speaker or camera in use that
// disappears is replaced by the default one of its kind, with a log line (the engine's trace), and
// the media follow at once. Devices that appear need nothing here: GetState probes the system on
// every call. Runs on the worker thread, from Tick.
#include "core_private.h"

namespace ktopen {

void Core::FollowRemovedDevices() {
  for (const auto& gone : device_watch_.Removed()) {
    const Device::Kind kind = gone.first;
    const std::string& id = gone.second;
    std::unique_lock<std::mutex> lock(mutex_);
    std::string* current = kind == Device::kMicrophone ? &mic_
                           : kind == Device::kSpeaker  ? &speaker_
                                                       : &camera_;
    if (*current != id) continue;
    lock.unlock();
    const std::string replacement = FallbackDevice(ListDevices(kind), id);
    lock.lock();
    if (*current != id || replacement.empty()) continue;
    *current = replacement;
    const char* what = kind == Device::kMicrophone ? "microphone"
                       : kind == Device::kSpeaker  ? "speaker"
                                                   : "camera";
    const std::string mic = mic_, camera = camera_;
    const bool mic_on = mic_on_, camera_on = camera_on_;
    const int level = mic_volume_;
    int w = 640, h = 480, fps = 30;
    ProfileSize(profile_, &w, &h, &fps);
    lock.unlock();
    Trace(kind == Device::kCamera ? kVideo : kAudio, 2,
          std::string("The ") + what + " '" + id + "' disappeared; using the default '" +
              replacement + "'");
    if (kind == Device::kSpeaker) {
      ApplyPlayback();
    } else if (publisher_ && kind == Device::kMicrophone) {
      publisher_->SetMicrophone(mic, mic_on, level);
    } else if (publisher_) {
      publisher_->SetCamera(camera, camera_on, w, h, fps);
    }
  }
}

}  // namespace ktopen
