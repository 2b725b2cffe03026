// The open core's commands and device state: the audio and video documents of the engines'
// SetRoot (checked whole first, then applied) and the state documents of GetState. Runs on the
// product's threads under mutex_; what the peers must do is posted to the worker thread.
#include <algorithm>

#include "core_private.h"
#include "numbers.h"

namespace ktopen {

using ktengine::ReadInt;

namespace {

bool ReadColorspace(const std::string& name, ktengine_pixel_format* format) {
  if (name == "RGB888") {
    *format = KTENGINE_RGB888;
  } else if (name == "BGRA8888" || name == "ARGB8888") {
    *format = KTENGINE_BGRA8888;
  } else if (name == "RGBA8888") {
    *format = KTENGINE_RGBA8888;
  } else {
    return false;
  }
  return true;
}

}  // namespace

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
  DeviceSettings settings;
  bool& on = settings.on;
  std::string& profile = settings.profile;
  for (const auto& setting : d.children) {
    if (setting->name == "enable") {
      if (!ReadFlag(*setting, &on, error)) return false;
      settings.has_enable = true;
    } else if (setting->name == "volume" && kind != Device::kCamera) {
      if (!ReadInt(setting->text, 0, 255, &settings.volume)) {
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
  if (kind == Device::kCamera && settings.has_enable && on && profile.empty()) {
    return Fail(error, "Missing <profile> for video device '" + *id + "'");
  }
  if (apply) ApplyDevice(kind, found, settings);
  return true;
}

void Core::ApplyDevice(Device::Kind kind, const Device& device, const DeviceSettings& settings) {
  const std::string& id = device.id;
  const bool has_enable = settings.has_enable, on = settings.on;
  const long volume = settings.volume;
  std::unique_lock<std::mutex> lock(mutex_);
  if (kind == Device::kMicrophone) {
    if (has_enable && (on || id == mic_)) mic_on_ = on, mic_ = id;
    if (volume >= 0 && id == mic_) mic_volume_ = static_cast<int>(std::min(volume, 100L));
    const std::string mic = mic_;
    const bool mic_on = mic_on_;
    const int level = mic_volume_;
    lock.unlock();
    worker_.Post([=] {
      if (publisher_) publisher_->SetMicrophone(mic, mic_on, level);
    });
    if (has_enable) worker_.Post([this] { AnnouncePresence(); });  // muted or not
  } else if (kind == Device::kSpeaker) {
    if (has_enable && (on || id == speaker_)) speaker_on_ = on, speaker_ = id;
    if (volume >= 0 && id == speaker_) speaker_volume_ = static_cast<int>(volume);
    lock.unlock();
    worker_.Post([this] { ApplyPlayback(); });
  } else {
    if (has_enable && (on || id == camera_)) camera_on_ = on, camera_ = id;
    if (!settings.profile.empty()) profile_ = settings.profile;
    const std::string camera = camera_;
    const bool camera_on = camera_on_;
    int w = 640, h = 480, fps = 30;
    ProfileSize(profile_, &w, &h, &fps);
    const Presence stated = LocalPresenceLocked();  // the size as sent: turned with the camera
    // The local camera is a stream of the local participant while the meeting runs.
    std::string announce, remove;
    if (joined_ && camera_on && local_video_id_.empty()) {
      local_video_id_ = "local/video";
      videos_[local_video_id_] = self_view_;
      announce = StreamEvent("video_site_changed", local_video_id_,
                             Tag("email", uuid_) + Tag("site", display_) + Tag("name", camera) +
                                 Tag("device_name", device.name) + Tag("codecName", profile_) +
                                 Tag("local", "true") + Tag("active", "true") +
                                 Tag("layout", stated.layout) + Tag("width", stated.width) +
                                 Tag("height", stated.height));
    } else if (!camera_on && !local_video_id_.empty()) {
      remove = StreamEvent("video_stream_removed", local_video_id_, "");
      videos_.erase(local_video_id_);
      self_view_->Stop();
      local_video_id_.clear();
      worker_.Post([this] {
        if (publisher_) publisher_->StopSelf();
      });
    }
    lock.unlock();
    if (!announce.empty()) Emit(kVideo, announce);
    if (!remove.empty()) Emit(kVideo, remove);
    worker_.Post([=] {
      if (publisher_) publisher_->SetCamera(camera, camera_on, w, h, fps);
      if (!settings.profile.empty()) AnnouncePresence();  // the size may have changed
    });
  }
}

bool Core::AudioCommand(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "input" || what == "output") {
      const Device::Kind kind = what == "input" ? Device::kMicrophone : Device::kSpeaker;
      const bool ok = ktengine::ForEachItem(
          *child, error, [&](const Node& d) { return DeviceCommand(d, kind, apply, error); });
      if (!ok) return false;
    } else if (what == "streams") {
      const bool ok = ktengine::ForEachItem(*child, error, [&](const Node& s) {
        const std::string* id = ktengine::AudioStreamId(s, error);
        if (id == nullptr) return false;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (audio_ids_.count(*id) == 0) return Fail(error, "Unknown audio stream '" + *id + "'");
        }
        long value = 0;
        if (!ktengine::ReadAudioStreamVolume(s, *id, &value, error)) return false;
        if (apply) {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            stream_volumes_[*id] = static_cast<int>(value);
          }
          worker_.Post([this] { ApplyPlayback(); });
        }
        return true;
      });
      if (!ok) return false;
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
      const bool self = slot == self_view_;
      worker_.Post([this, video_id = *id, self] {
        if (self && publisher_) publisher_->StopSelf();
        Remote* remote = RemoteByVideoId(video_id);
        if (remote && remote->peer) remote->peer->StopRender();
      });
    }
    return true;
  }
  if (!render) return Fail(error, "Missing <render> for video stream '" + *id + "'");
  const std::string* colorspace = TextOf(*render, "colorspace");
  ktengine_pixel_format format;
  if (!colorspace) return Fail(error, "Missing <colorspace> for video stream '" + *id + "'");
  if (!ReadColorspace(*colorspace, &format)) {
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
  const bool self = slot == self_view_;
  worker_.Post([=, video_id = *id] {
    if (self && publisher_) publisher_->RenderSelf(slot.get(), format, frame->width, frame->height);
    Remote* remote = RemoteByVideoId(video_id);
    if (remote && remote->peer)
      remote->peer->Render(slot.get(), format, frame->width, frame->height);
  });
  Emit(kVideo, ktengine::BufferReadyEvent(*id, frame));
  return true;
}

bool Core::VideoCommand(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "devices" || what == "streams") {
      const bool ok = ktengine::ForEachItem(*child, error, [&](const Node& item) {
        if (what == "streams") return Render(item, apply, error);
        const std::string* id = item.name == "device" ? item.Attribute("id") : nullptr;
        Screen screen;
        if (id && FindScreen(*id, &screen)) return ScreenCommand(item, screen, apply, error);
        return DeviceCommand(item, Device::kCamera, apply, error);
      });
      if (!ok) return false;
    } else if (what == "local_url") {
      if (!NetworkVideoCommand(*child, apply, error)) return false;
    } else {
      return Fail(error, "Unsupported element <" + what + "> in video command");
    }
  }
  return true;
}

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
    for (const Screen& screen : ListScreens()) {
      doc += "<device id=\"" + Escape(screen.id) + "\">" + Tag("name", screen.name) +
             Tag("screen", "true") +
             Tag("enabled", further_ids_.count(screen.id) ? "true" : "false") +
             "<codecs><codec name=\"" + Escape(kScreenProfile) + "\"/></codecs></device>";
    }
    doc += "</inputs></video>";
  }
  if (states_.empty() || states_.back() != doc) states_.push_back(doc);
  return states_.back().c_str();
}
}  // namespace ktopen
