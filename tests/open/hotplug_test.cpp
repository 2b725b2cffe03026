// Devices that disappear: the device that replaces one in use, and the watch over the system's
// devices, which starts and stops cleanly also on a machine without any device.
#include <gtest/gtest.h>

#include "hotplug.h"
#include "media.h"

namespace {

using namespace ktopen;

Device Make(const char* id, bool preferred, bool is_virtual = false) {
  Device d;
  d.id = id;
  d.preferred = preferred;
  d.is_virtual = is_virtual;
  return d;
}

TEST(Hotplug, ADeviceInUseThatIsGoneFallsBackToTheDefault) {
  // The system's default while it is there; the first other device when there is no default.
  EXPECT_EQ(
      FallbackDevice({Make("usb", false), Make("built-in", true), Make("test-tone", false, true)},
                     "usb"),
      "built-in");
  EXPECT_EQ(
      FallbackDevice({Make("usb", false), Make("hdmi", false), Make("null-speaker", false, true)},
                     "usb"),
      "hdmi");
  // The gone device is never chosen, even when the list still names it as the default; with no
  // real device left the virtual one (preferred then) takes over.
  EXPECT_EQ(FallbackDevice({Make("usb", true), Make("test-tone", false, true)}, "usb"),
            "test-tone");
  EXPECT_EQ(FallbackDevice({Make("test-pattern", false, true)}, "usb-cam"), "test-pattern");
  EXPECT_EQ(FallbackDevice({Make("usb", true)}, "usb"), "");
}

TEST(Hotplug, TheWatchStartsAndStopsAndReportsNothingUntilADeviceGoes) {
  ASSERT_TRUE(InitMedia(nullptr));
  DeviceWatch watch;
  EXPECT_TRUE(watch.Removed().empty());  // not started
  for (int i = 0; i < 3; ++i) {
    watch.Start();
    watch.Start();  // twice is once
    EXPECT_TRUE(watch.Removed().empty());
    watch.Stop();
    EXPECT_FALSE(watch.running());
    EXPECT_TRUE(watch.Removed().empty());
  }
}

}  // namespace
