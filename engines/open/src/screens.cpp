// Screens to share. The X11 screens are read from the display itself (Xlib, when the engines were
// built with it; otherwise the display named by DISPLAY counts as one screen of unknown size when
// its socket exists). The virtual screen draws a ball moving over a still background, so that a
// receiver sees motion at the screen's rate without the cost of redrawing a full pattern.
#include "screens.h"

#include "devices.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#ifdef KTOPEN_HAVE_X11
#include <X11/Xlib.h>
#endif

namespace ktopen {

const char* const kVirtualScreen = "virtual-screen";
const char* const kScreenProfile = "VP8 4K (10FPS)";

namespace {

constexpr int kVirtualWidth = 1280, kVirtualHeight = 720;
constexpr int kFallbackWidth = 1280, kFallbackHeight = 720;  // a display whose size is unknown
constexpr const char* kX11Prefix = "x11:";

std::string DisplayName() {
  const char* display = std::getenv("DISPLAY");
  return display ? display : "";
}

#ifndef KTOPEN_HAVE_X11
// ":N" or ":N.S" of a local display, whose socket is /tmp/.X11-unix/XN.
bool LocalDisplaySocketExists(const std::string& display) {
  if (display.empty() || display[0] != ':') return false;
  const int number = std::atoi(display.c_str() + 1);
  char path[64];
  std::snprintf(path, sizeof path, "/tmp/.X11-unix/X%d", number);
  struct stat info;
  return stat(path, &info) == 0;
}
#endif

void AddX11Screens(std::vector<Screen>* screens) {
  const std::string display = DisplayName();
  if (display.empty()) return;
#ifdef KTOPEN_HAVE_X11
  Display* connection = XOpenDisplay(display.c_str());
  if (!connection) return;
  // The display's name without a screen number: ":99.0" -> ":99".
  std::string base = DisplayString(connection);
  const size_t colon = base.rfind(':');
  const size_t dot = base.find('.', colon == std::string::npos ? 0 : colon);
  if (dot != std::string::npos) base.erase(dot);
  for (int i = 0; i < ScreenCount(connection); ++i) {
    Screen s;
    s.id = kX11Prefix + base + "." + std::to_string(i);
    const int w = DisplayWidth(connection, i), h = DisplayHeight(connection, i);
    s.name = "Screen Capture - X11 screen " + base + "." + std::to_string(i) + " (" +
             std::to_string(w) + "x" + std::to_string(h) + ")";
    ScreenSentSize(w, h, &s.width, &s.height);
    screens->push_back(s);
  }
  XCloseDisplay(connection);
#else
  if (!LocalDisplaySocketExists(display)) return;
  Screen s;
  s.id = kX11Prefix + display;
  s.name = "Screen Capture - X11 display " + display;
  s.width = kFallbackWidth;
  s.height = kFallbackHeight;
  screens->push_back(s);
#endif
}

}  // namespace

void ScreenSentSize(int width, int height, int* sent_width, int* sent_height) {
  if (width < 2 || height < 2) width = kFallbackWidth, height = kFallbackHeight;
  const double fit = std::min({1.0, 1920.0 / width, 1080.0 / height});
  *sent_width = std::max(2, static_cast<int>(width * fit) & ~1);
  *sent_height = std::max(2, static_cast<int>(height * fit) & ~1);
}

std::vector<Screen> ListScreens() {
  std::vector<Screen> screens;
  AddX11Screens(&screens);
  Screen v;
  v.id = kVirtualScreen;
  v.name = "Screen Capture - Virtual screen";
  v.width = kVirtualWidth;
  v.height = kVirtualHeight;
  screens.push_back(v);
  return screens;
}

bool FindScreen(const std::string& id, Screen* screen) {
  for (const Screen& s : ListScreens()) {
    if (s.id == id) {
      *screen = s;
      return true;
    }
  }
  return false;
}

GstElement* CreateScreenElement(const Screen& screen) {
  char description[512];
  if (screen.id == kVirtualScreen) {
    std::snprintf(description, sizeof description,
                  "videotestsrc is-live=true pattern=ball motion=sweep background-color=0xff203040 "
                  "foreground-color=0xfff0c020 ! "
                  "capsfilter caps=video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1",
                  screen.width, screen.height, kScreenFps);
  } else {
    const std::string display = screen.id.substr(std::char_traits<char>::length(kX11Prefix));
    // Damage tracking needs the XDamage extension, which a virtual display may lack; the pointer
    // is not part of the picture.
    std::snprintf(description, sizeof description,
                  "ximagesrc display-name=\"%s\" use-damage=false show-pointer=false ! "
                  "video/x-raw,framerate=%d/1 ! videoconvert ! videoscale ! "
                  "capsfilter caps=video/x-raw,format=I420,width=%d,height=%d",
                  display.c_str(), kScreenFps, screen.width, screen.height);
  }
  return ParsedBin(description);
}

}  // namespace ktopen
