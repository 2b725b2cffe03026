// The open core's presence: the local participant's state (microphone muted, the camera's size
// and layout, its orientation) stated to the room through the display name (presence.h), and the
// states the other publishers state, turned into the events the product knows: the "muted"
// attribute of amplitude, video_stream_size_changed and remote_layout_changed. AnnouncePresence
// and OnPresence run on the worker thread.
#include "core_private.h"

namespace ktopen {

Presence Core::LocalPresenceLocked() const {
  Presence p;
  p.name = display_;
  p.muted = !mic_on_;
  int fps = 30;
  ProfileSize(profile_, &p.width, &p.height, &fps);
  p.profile = profile_;
  if (rotation_ == 90 || rotation_ == 270) {
    std::swap(p.width, p.height);
    p.layout = kPortraitLayout;
  }
  return p;
}

void Core::AnnouncePresence() {
  if (!janus_.is_open() || pub_handle_ == 0) return;
  std::string display;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!joined_) return;
    display = EncodePresence(LocalPresenceLocked());
  }
  Json reply;
  std::string error;
  if (!janus_.Message(pub_handle_, "{\"request\":\"configure\",\"display\":" + Quote(display) + "}",
                      "", &reply, &error)) {
    Trace(kAudio, 2, "could not state our presence: " + error);
  }
}

void Core::OnPresence(const std::string& feed, const std::string& display) {
  auto it = remotes_.find(feed);
  if (it == remotes_.end()) return;
  Remote& r = *it->second;
  const Presence before = r.presence;
  const Presence now = DecodePresence(display);
  r.presence = now;
  const uint64_t generation = this->generation();
  if (now.muted != before.muted && !r.extra) {
    int level;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      muted_[r.audio_id] = now.muted;
      level = levels_[r.audio_id];
    }
    // At once, rather than with the next measured level.
    Emit(kAudio,
         "<event name=\"amplitude\"><stream id=\"" + Escape(r.audio_id) + "\" muted=\"" +
             (now.muted ? "true" : "false") + "\">" + Tag("amplitude", now.muted ? 0 : level) +
             "</stream></event>",
         generation);
  }
  if (r.video_id.empty()) return;
  if (now.width != before.width || now.height != before.height) {
    Emit(
        kVideo,
        StreamEvent("video_stream_size_changed", r.video_id,
                    "<window>" + Tag("width", now.width) + Tag("height", now.height) + "</window>"),
        generation);
    // A stream rendered at the sender's size keeps following it.
    int width = 0, height = 0;
    ktengine_pixel_format format;
    if (r.slot && r.peer &&
        r.slot->Follow(before.width, before.height, now.width, now.height, &width, &height,
                       &format)) {
      r.peer->Render(r.slot.get(), format, width, height);
    }
  }
  if (now.layout != before.layout) {
    Emit(kVideo, StreamEvent("remote_layout_changed", r.video_id, Tag("layout", now.layout)),
         generation);
  }
}

void Core::SetOrientation(int degrees) {
  // Degrees clockwise, to the nearest quarter turn.
  const int turned = (((degrees % 360) + 360) % 360 + 45) / 90 % 4 * 90;
  std::string resized;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (turned == rotation_) return;
    const bool was_portrait = rotation_ == 90 || rotation_ == 270;
    rotation_ = turned;
    const Presence p = LocalPresenceLocked();
    if (!local_video_id_.empty() && was_portrait != (p.layout == kPortraitLayout)) {
      resized =
          StreamEvent("video_stream_size_changed", local_video_id_,
                      "<window>" + Tag("width", p.width) + Tag("height", p.height) + "</window>");
    }
  }
  if (!resized.empty()) Emit(kVideo, resized);
  worker_.Post([this, turned] {
    if (publisher_) publisher_->SetRotation(turned);
    AnnouncePresence();
  });
}

}  // namespace ktopen
