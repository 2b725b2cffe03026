// Screens that can be shared: each screen of the X11 display named by DISPLAY, when that display
// is reachable (captured with ximagesrc), then a virtual screen that always exists (moving
// content drawn at 10 frames a second). Their display names begin with "Screen Capture - " and
// their one profile is "VP8 4K (10FPS)", the texts by which a host tells a shared screen from a
// camera. A screen is sent at its own size, scaled down to fit 1920x1080.
#ifndef KTOPEN_SCREENS_H
#define KTOPEN_SCREENS_H

#include <gst/gst.h>

#include <string>
#include <vector>

namespace ktopen {

extern const char* const kVirtualScreen;  // "virtual-screen"
extern const char* const kScreenProfile;  // "VP8 4K (10FPS)"
inline constexpr int kScreenFps = 10;

struct Screen {
  std::string id;             // "x11:<display>.<screen>" or kVirtualScreen
  std::string name;           // "Screen Capture - ..."
  int width = 0, height = 0;  // as sent
};

// The screens, X11 ones first; the display is asked on every call.
std::vector<Screen> ListScreens();
bool FindScreen(const std::string& id, Screen* screen);

// The sent size of a screen of width x height pixels: the same shape, at most 1920x1080, even.
void ScreenSentSize(int width, int height, int* sent_width, int* sent_height);

// A new source for the screen (floating reference): a bin whose "src" pad gives raw video at
// kScreenFps, or nullptr.
GstElement* CreateScreenElement(const Screen& screen);

}  // namespace ktopen

#endif  // KTOPEN_SCREENS_H
