// Capture and playback devices: what the GStreamer device monitor finds, plus the virtual devices
// that always exist so that the engines work on a machine without any (a test-pattern camera, a
// test-tone microphone and a speaker that plays nowhere).
#ifndef KTOPEN_DEVICES_H
#define KTOPEN_DEVICES_H

#include <gst/gst.h>

#include <string>
#include <vector>

namespace ktopen {

extern const char* const kTestPatternCamera;   // "test-pattern"
extern const char* const kTestCamera;          // "test-camera" (moving, test_camera.h)
extern const char* const kTestToneMicrophone;  // "test-tone"
extern const char* const kNullSpeaker;         // "null-speaker"

struct Device {
  enum Kind { kMicrophone, kSpeaker, kCamera };
  Kind kind = kMicrophone;
  std::string id;    // the element's "device" property, or the virtual device's name
  std::string name;  // display name
  bool preferred = false;
  bool is_virtual = false;
};

// The devices of that kind, real ones first (the system's default marked preferred), then the
// virtual one (preferred when there is no real device). Probes the system on each call.
std::vector<Device> ListDevices(Device::Kind kind);

// The id of a device the monitor reports (its element's "device" property, else its name).
std::string DeviceId(GstDevice* device);

// Whether `id` names a device of that kind.
bool FindDevice(Device::Kind kind, const std::string& id, Device* device);

// A new source or sink element for the device (floating reference), or nullptr. The virtual
// camera's pattern is colour bars (a bin with a "src" pad); `off` gives black frames or silence
// instead.
GstElement* CreateDeviceElement(Device::Kind kind, const std::string& id, bool off = false);

// A bin from a launch description, its unlinked pads ghosted (a source's "src"); null when the
// description does not parse.
GstElement* ParsedBin(const char* description);

// Whether `id` is one of the virtual devices of that kind.
bool IsVirtualSource(Device::Kind kind, const std::string& id);

// Switches a virtual source made by CreateDeviceElement in place to the virtual device `id`, ""
// meaning off (black frames, silence).
void SwitchVirtualCamera(GstElement* camera, const std::string& id);
void SwitchVirtualMicrophone(GstElement* microphone, const std::string& id);

// Switches a virtual source made by CreateDeviceElement in place: the camera between the colour
// bars and black, the microphone between the tone and silence.
void SetTestPattern(GstElement* camera, bool on);
void SetTestTone(GstElement* microphone, bool on);

// The camera profiles offered for every camera, and the size and rate of one.
const std::vector<std::string>& CameraProfiles();
bool ProfileSize(const std::string& profile, int* width, int* height, int* fps);

}  // namespace ktopen

#endif  // KTOPEN_DEVICES_H
