// What a publisher tells the others about itself through its display name in the video room: the
// room relays a display name set at joining and every change of it to every participant, which
// makes it the server's own channel for a publisher's state (the room has no event for mute,
// picture size or layout). The text is the host's display name, then, after a unit separator
// (0x1f), "key=value" fields separated by ';' (values escaped with '%XX'):
//
//   m   1 when the microphone is muted          w, h  the picture's size in pixels
//   l   the layout the sender states            o     the participant that owns this publisher,
//   n   the stream's name                             for a further stream (a shared screen or
//   p   the stream's profile                          network video); absent for the main one
//
// A display name without the separator is a plain name with the defaults below.
#ifndef KTOPEN_PRESENCE_H
#define KTOPEN_PRESENCE_H

#include <string>

namespace ktopen {

struct Presence {
  std::string name;   // the host's display name
  std::string owner;  // "" for a participant's main publisher
  std::string label;  // the stream's name ("" for the camera)
  std::string profile = "VP8 640x480 (30FPS)";
  bool muted = false;
  int width = 640, height = 480;
  int layout = 0;
};

// Layouts a sender states: a landscape camera, a shared screen or network video, a camera turned
// to portrait.
inline constexpr int kLandscapeLayout = 0;
inline constexpr int kScreenLayout = 1;
inline constexpr int kPortraitLayout = 2;

std::string EncodePresence(const Presence& presence);
Presence DecodePresence(const std::string& display);

}  // namespace ktopen

#endif  // KTOPEN_PRESENCE_H
