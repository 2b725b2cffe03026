// The scripted meeting's commands: the audio and video documents of the engines' SetRoot, checked
// whole first and then applied, so that a refused command changes nothing. Runs on the product's
// threads (any thread that sends a command, the engine threads included) with the Meeting's mutex
// held.
#include <algorithm>

#include "meeting.h"
#include "numbers.h"

namespace ktsim {

using ktengine::ReadInt;

bool Meeting::Command(ktsim_engine engine, const std::string& xml, std::string* error) {
  std::string why;
  std::unique_ptr<Node> root = ktengine::ParseCommand(xml, &why);
  if (!root) return Fail(error, "Malformed command: " + why);
  const char* expected = engine == KTSIM_VIDEO ? "video" : "audio";
  if (root->name != expected) {
    return Fail(error, std::string("Unsupported command <") + root->name + ">, expected <" +
                           expected + ">");
  }
  if (root->children.empty()) return Fail(error, std::string("Empty <") + expected + "> command");
  std::lock_guard<std::mutex> lock(mutex_);
  const bool audio = engine == KTSIM_AUDIO;
  if (!(audio ? AudioCommandLocked(*root, false, error)
              : VideoCommandLocked(*root, false, error))) {
    return false;
  }
  return audio ? AudioCommandLocked(*root, true, error) : VideoCommandLocked(*root, true, error);
}

bool Meeting::AudioCommandLocked(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "input" || what == "output") {
      if (!AudioDevicesLocked(*child, apply, error)) return false;
    } else if (what == "streams") {
      const bool ok = ktengine::ForEachItem(*child, error, [&](const Node& s) {
        const std::string* id = ktengine::AudioStreamId(s, error);
        if (id == nullptr) return false;
        // Any stream of this meeting, including one whose participant just left: the product
        // sets a volume in answer to an announcement that may cross the departure.
        if (!running_ || ids_.count(*id) == 0) {
          return Fail(error, "Unknown audio stream '" + *id + "'");
        }
        long value = 0;
        if (!ktengine::ReadAudioStreamVolume(s, *id, &value, error)) return false;
        if (apply) volumes_[*id] = static_cast<int>(value);
        return true;
      });
      if (!ok) return false;
    } else if (ktengine::IsAudioSwitch(what)) {
      bool on = false;
      if (!ktengine::ReadSwitch(*child, &on, error)) return false;
      if (apply) switches_[what] = on;
    } else {
      return Fail(error, "Unsupported element <" + what + "> in audio command");
    }
  }
  return true;
}

bool Meeting::AudioDevicesLocked(const Node& list, bool apply, std::string* error) {
  const std::string& what = list.name;
  std::vector<AudioDevice>& devices = what == "input" ? inputs_ : outputs_;
  if (list.children.empty()) return Fail(error, "Empty <" + what + "> element");
  for (const auto& d : list.children) {
    if (d->name != "device")
      return Fail(error, "Unsupported element <" + d->name + "> in <" + what + ">");
    const std::string* id = d->Attribute("id");
    if (id == nullptr || id->empty()) return Fail(error, "Missing audio " + what + " device id");
    auto device = std::find_if(devices.begin(), devices.end(),
                               [&](const AudioDevice& a) { return a.id == *id; });
    if (device == devices.end())
      return Fail(error, "Unknown audio " + what + " device '" + *id + "'");
    if (d->children.empty()) return Fail(error, "Nothing to change for device '" + *id + "'");
    for (const auto& setting : d->children) {
      long value = 0;
      bool on = false;
      if (setting->name == "enable") {
        if (!ReadFlag(*setting, &on, error)) return false;
        if (apply) {
          if (on) {
            for (AudioDevice& other : devices) other.enabled = false;  // one at a time
          }
          device->enabled = on;
        }
      } else if (setting->name == "volume") {
        if (!ReadInt(setting->text, 0, 255, &value)) {
          return Fail(error, "Invalid volume '" + setting->text + "'");
        }
        if (apply) volumes_[*id] = static_cast<int>(value);
      } else if (setting->name == "profile") {
        if (setting->text.compare(0, 5, "opus-") != 0) {
          return Fail(error, "Unsupported audio profile '" + setting->text + "'");
        }
      } else {
        return Fail(error, "Unsupported element <" + setting->name + "> in audio device");
      }
    }
  }
  return true;
}

bool Meeting::VideoCommandLocked(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "devices" || what == "streams") {
      const bool ok = ktengine::ForEachItem(*child, error, [&](const Node& item) {
        return what == "devices" ? VideoDeviceLocked(item, apply, error)
                                 : VideoStreamLocked(item, apply, error);
      });
      if (!ok) return false;
    } else if (what == "local_url") {
      if (!LocalUrlLocked(*child, apply, error)) return false;
    } else {
      return Fail(error, "Unsupported element <" + what + "> in video command");
    }
  }
  return true;
}

bool Meeting::LocalUrlLocked(const Node& node, bool apply, std::string* error) {
  const std::string* url = TextOf(node, "url");
  const std::string* command = TextOf(node, "command");
  if (url == nullptr || url->empty()) return Fail(error, "Missing <url> in <local_url>");
  if (command == nullptr) return Fail(error, "Missing <command> in <local_url>");
  auto playing = std::find_if(streams_.begin(), streams_.end(), [&](const auto& entry) {
    return entry.second.local && entry.second.url == *url;
  });
  if (*command == "playback_start") {
    const std::string* profile = TextOf(node, "profile");
    if (profile == nullptr || profile->empty())
      return Fail(error, "Missing <profile> in <local_url>");
    if (!apply) return true;
    if (playing != streams_.end()) RemoveStreamLocked(playing->first, true);
    const std::string* name = TextOf(node, "name");
    const std::string id =
        AddLocalStreamLocked(name ? *name : "", "", "", *profile, Picture::kNetwork);
    streams_[id].url = *url;
    return true;
  }
  if (*command == "playback_stop") {
    if (playing == streams_.end())
      return Fail(error, "No network video playing from '" + *url + "'");
    if (apply) RemoveStreamLocked(playing->first, true);
    return true;
  }
  return Fail(error, "Unsupported local_url command '" + *command + "'");
}

bool Meeting::VideoStreamLocked(const Node& node, bool apply, std::string* error) {
  const std::string* id = node.Attribute("id");
  if (node.name != "stream" || id == nullptr) return Fail(error, "Malformed video stream element");
  auto it = streams_.find(*id);
  if (it == streams_.end()) return Fail(error, "Unknown video stream '" + *id + "'");
  Stream& s = it->second;
  if (node.children.empty()) return Fail(error, "Nothing to change for video stream '" + *id + "'");
  for (const auto& setting : node.children) {
    bool on = false;
    if (setting->name == "enable") {
      if (!ReadFlag(*setting, &on, error)) return false;
      if (apply && !on) s.rendering = false;
      if (apply && on && s.frame)
        StartRenderLocked(s, static_cast<ktsim_pixel_format>(s.frame->format), s.frame->width,
                          s.frame->height);
    } else if (setting->name == "render") {
      const Node& render = *setting;
      const Node* enable = render.Child("enable");
      if (enable == nullptr) return Fail(error, "Missing <enable> in <render>");
      if (!ReadFlag(*enable, &on, error)) return false;
      if (!on) {
        if (apply) s.rendering = false;
        continue;
      }
      const std::string* colorspace = TextOf(render, "colorspace");
      ktsim_pixel_format format = KTSIM_RGB888;
      if (colorspace != nullptr && !FormatOf(*colorspace, &format)) {
        return Fail(error, "Unsupported colorspace '" + *colorspace + "'");
      }
      long width = 0, height = 0;
      if (const Node* window = render.Child("window")) {
        const std::string* w = TextOf(*window, "width");
        const std::string* h = TextOf(*window, "height");
        if ((w && !ReadInt(*w, 0, kMaxFrameWidth, &width)) ||
            (h && !ReadInt(*h, 0, kMaxFrameHeight, &height))) {
          return Fail(error, "Invalid render window size");
        }
      }
      if (apply) {
        StartRenderLocked(s, format, width > 0 ? static_cast<int>(width) : s.width,
                          height > 0 ? static_cast<int>(height) : s.height);
      }
    } else {
      return Fail(error, "Unsupported element <" + setting->name + "> in video stream");
    }
  }
  return true;
}

}  // namespace ktsim
