// The scripted meeting's devices and pictures: the local microphones, speakers, cameras and screen,
// their commands and state documents, the local streams they start, and the frames a rendered
// stream draws. Runs on the product's threads with the Meeting's mutex held; PollFrame runs on the
// product's frame-polling threads and writes the frame outside that lock (frame.h).
#include <algorithm>

#include "meeting.h"
#include "numbers.h"

namespace ktsim {

using ktengine::ReadInt;

namespace {

// The size and frame rate a send profile stands for ("H.264 720p (30FPS)", "VP8 4K (10FPS)").
void ProfileSize(const std::string& profile, bool screen, int* width, int* height, int* fps) {
  *width = screen ? kScreenWidth : 640;
  *height = screen ? kScreenHeight : 360;
  *fps = screen ? 10 : 30;
  if (!screen) {
    if (profile.find("1080p") != std::string::npos) {
      *width = 1920;
      *height = 1080;
    } else if (profile.find("720p") != std::string::npos) {
      *width = 1280;
      *height = 720;
    }
  }
  const size_t f = profile.find("FPS)");
  if (f != std::string::npos) {
    size_t b = profile.rfind('(', f);
    long value = 0;
    if (b != std::string::npos && ReadInt(profile.substr(b + 1, f - b - 1), 1, 60, &value)) {
      *fps = static_cast<int>(value);
    }
  } else if (profile.find("Lossless") != std::string::npos) {
    *fps = 5;
  }
}

}  // namespace

void Meeting::ResetDevicesLocked() {
  inputs_ = {{"mic-builtin", "Quillbook Microphone", true, false},
             {"mic-headset", "USB Headset Microphone", false, false},
             {"mic-array", "Conference Speakerphone", false, false}};
  outputs_ = {{"spk-builtin", "Quillbook Speakers", true, false},
              {"spk-headset", "USB Headset", false, false},
              {"spk-display", "Vantor Display Speakers", false, false}};
  cameras_ = {
      {"cam-lumen",
       "Lumen HD Camera",
       false,
       {"H.264 360p (30FPS)", "H.264 720p (30FPS)", "VP8 720p (30FPS)"},
       ""},
      {"cam-usb-vx20",
       "Orbis VX20 Webcam",
       false,
       {"H.264 360p (30FPS)", "H.264 720p (30FPS)", "H.264 1080p (30FPS)"},
       ""},
      {"screen-main", "Built-in Lumen Display", true, {"VP8 4K (10FPS)", "ffv1 Lossless"}, ""}};
  volumes_.clear();
  switches_.clear();
}

std::string Meeting::AddLocalStreamLocked(const std::string& name, const std::string& device_name,
                                          const std::string& site, const std::string& codec,
                                          Picture::Kind kind) {
  Stream s;
  s.id = NewIdLocked();
  s.owner = local_uuid_;
  s.email = local_uuid_;
  s.site = site.empty() ? local_name_ : site;
  s.name = name;
  s.device_name = device_name;
  s.codec = codec;
  s.local = true;
  ProfileSize(codec, kind == Picture::kScreen, &s.width, &s.height, &s.fps);
  if (kind == Picture::kNetwork) {
    s.width = 1280;
    s.height = 720;
  }
  s.picture.kind = kind;
  s.picture.seed = Fnv1a(local_uuid_ + name);
  s.picture.rgb[0] = 90;
  s.picture.rgb[1] = 160;
  s.picture.rgb[2] = 230;
  streams_[s.id] = s;
  // Announced now when the meeting is under way; otherwise with the opening announcement.
  if (running_ && announced_) AnnounceVideoLocked(streams_[s.id]);
  return s.id;
}

bool Meeting::VideoDeviceLocked(const Node& d, bool apply, std::string* error) {
  const std::string* id = d.Attribute("id");
  if (d.name != "device" || id == nullptr || id->empty()) {
    return Fail(error, "Malformed video device element");
  }
  auto device = std::find_if(cameras_.begin(), cameras_.end(),
                             [&](const VideoDevice& v) { return v.id == *id; });
  if (device == cameras_.end()) return Fail(error, "Unknown video device '" + *id + "'");
  const std::string* enable = TextOf(d, "enable");
  if (enable == nullptr) return Fail(error, "Missing <enable> for video device '" + *id + "'");
  bool on = false;
  if (!ReadFlag(*d.Child("enable"), &on, error)) return false;
  const std::string* profile = TextOf(d, "profile");
  if (on) {
    if (profile == nullptr) return Fail(error, "Missing <profile> for video device '" + *id + "'");
    if (std::find(device->codecs.begin(), device->codecs.end(), *profile) == device->codecs.end()) {
      return Fail(error, "Unsupported profile '" + *profile + "' for video device '" + *id + "'");
    }
  }
  if (!apply) return true;
  if (!device->stream_id.empty()) {  // a new profile replaces the running capture
    RemoveStreamLocked(device->stream_id, true);
    device->stream_id.clear();
  }
  if (on) {
    const std::string* name = TextOf(d, "name");
    const std::string* site = TextOf(d, "site");
    const std::string shown = device->screen ? "Screen Capture - " + device->name : device->name;
    device->stream_id =
        AddLocalStreamLocked(name ? *name : *id, shown, site ? *site : "", *profile,
                             device->screen ? Picture::kScreen : Picture::kLocalCamera);
  }
  return true;
}

void Meeting::StartRenderLocked(Stream& s, ktsim_pixel_format format, int width, int height) {
  width = std::clamp(width, 1, kMaxFrameWidth);
  height = std::clamp(height, 1, kMaxFrameHeight);
  if (s.frame && !frames::Fits(s.frame, width, height)) {
    frames::Release(s.frame);
    s.frame = nullptr;
  }
  if (s.frame == nullptr) s.frame = frames::Acquire(width, height);
  frames::Prepare(s.frame, format, width, height, s.id);
  s.rendering = true;
  s.render_start = Clock::now();
  s.last_index = -1;
  Send(KTSIM_VIDEO, ktengine::BufferReadyEvent(s.id, s.frame));
}

int Meeting::PollFrame(const std::string& stream_id) {
  ktsim_frame* frame = nullptr;
  Picture picture;
  int64_t index = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = streams_.find(stream_id);
    if (it == streams_.end()) return -1;
    Stream& s = it->second;
    if (!s.rendering || s.frame == nullptr) return 0;
    const double elapsed = std::chrono::duration<double>(Clock::now() - s.render_start).count();
    index = static_cast<int64_t>(elapsed * s.fps);
    if (index == s.last_index) return 0;
    s.last_index = index;
    frame = s.frame;
    picture = s.picture;
  }
  // Written outside mutex_: the descriptor has its own writer lock, and is never freed.
  frames::Write(frame, picture, static_cast<uint64_t>(index));
  return 1;
}

// ---- State documents -------------------------------------------------------------------------

std::string Meeting::State(ktsim_engine engine) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string doc;
  if (engine == KTSIM_AUDIO) {
    auto list = [&](const char* name, const std::vector<AudioDevice>& devices) {
      doc += std::string("<") + name + ">";
      for (const AudioDevice& d : devices) {
        auto v = volumes_.find(d.id);
        doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name) +
               Tag("preferred", d.preferred ? "true" : "false") +
               Tag("enabled", d.enabled ? "true" : "false");
        if (v != volumes_.end()) doc += Tag("volume", v->second);
        doc += "</device>";
      }
      doc += std::string("</") + name + ">";
    };
    doc = "<audio>";
    list("inputs", inputs_);
    list("outputs", outputs_);
    doc += "</audio>";
    return doc;
  }
  doc = "<video><inputs>";
  for (const VideoDevice& d : cameras_) {
    doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name);
    if (d.screen) doc += Tag("screen", "true");
    doc += Tag("enabled", d.stream_id.empty() ? "false" : "true") + "<codecs>";
    for (const std::string& codec : d.codecs) doc += "<codec name=\"" + Escape(codec) + "\"/>";
    doc += "</codecs></device>";
  }
  doc += "</inputs></video>";
  return doc;
}

}  // namespace ktsim
