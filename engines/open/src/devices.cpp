#include "devices.h"

#include <cstdio>

namespace ktopen {

const char* const kTestPatternCamera = "test-pattern";
const char* const kTestToneMicrophone = "test-tone";
const char* const kNullSpeaker = "null-speaker";

namespace {

const char* ClassOf(Device::Kind kind) {
  switch (kind) {
    case Device::kMicrophone:
      return "Audio/Source";
    case Device::kSpeaker:
      return "Audio/Sink";
    case Device::kCamera:
      return "Video/Source";
  }
  return "";
}

// The identifier of a real device: its element's "device" property (stable across runs).
std::string IdOf(GstDevice* device) {
  std::string id;
  GstElement* element = gst_device_create_element(device, nullptr);
  if (element) {
    gst_object_ref_sink(element);
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), "device")) {
      gchar* value = nullptr;
      g_object_get(element, "device", &value, nullptr);
      if (value) id = value;
      g_free(value);
    }
    gst_object_unref(element);
  }
  if (id.empty()) {
    gchar* name = gst_device_get_display_name(device);
    id = name ? name : "";
    g_free(name);
  }
  return id;
}

// read(properties) on the device's property structure, when it has one.
template <class Read>
void ReadProperties(GstDevice* device, Read read) {
  GstStructure* props = gst_device_get_properties(device);
  if (!props) return;
  read(props);
  gst_structure_free(props);
}

bool Hidden(GstDevice* device) {
  bool hidden = false;
  ReadProperties(device, [&](GstStructure* props) {
    const gchar* cls = gst_structure_get_string(props, "device.class");
    hidden = cls && g_strcmp0(cls, "monitor") == 0;  // "Monitor of ..." sources
  });
  return hidden;
}

bool IsDefault(GstDevice* device) {
  gboolean is_default = FALSE;
  ReadProperties(device, [&](GstStructure* props) {
    gst_structure_get_boolean(props, "is-default", &is_default);
  });
  return is_default;
}

// Real devices of a kind with their GstDevice (a new reference each).
std::vector<std::pair<Device, GstDevice*>> Probe(Device::Kind kind) {
  std::vector<std::pair<Device, GstDevice*>> found;
  GstDeviceMonitor* monitor = gst_device_monitor_new();
  gst_device_monitor_add_filter(monitor, ClassOf(kind), nullptr);
  GList* devices = gst_device_monitor_get_devices(monitor);
  for (GList* item = devices; item; item = item->next) {
    GstDevice* device = GST_DEVICE(item->data);
    if (Hidden(device)) continue;
    Device d;
    d.kind = kind;
    d.id = IdOf(device);
    gchar* name = gst_device_get_display_name(device);
    d.name = name ? name : d.id;
    g_free(name);
    d.preferred = IsDefault(device);
    if (d.id.empty()) continue;
    found.emplace_back(d, GST_DEVICE(gst_object_ref(device)));
  }
  g_list_free_full(devices, gst_object_unref);
  gst_object_unref(monitor);
  return found;
}

// A bin from a launch description, its unlinked pads ghosted (a virtual source's "src").
GstElement* ParsedBin(const char* description) {
  GError* problem = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description, TRUE, &problem);
  if (problem) g_error_free(problem);
  return bin;
}

// The named element inside a virtual source made by CreateDeviceElement (a new reference).
GstElement* Inner(GstElement* source, const char* name) {
  GstElement* inner = GST_IS_BIN(source) ? gst_bin_get_by_name(GST_BIN(source), name) : nullptr;
  return inner ? inner : GST_ELEMENT(gst_object_ref(source));
}

}  // namespace

std::vector<Device> ListDevices(Device::Kind kind) {
  std::vector<Device> list;
  bool any_preferred = false;
  for (auto& entry : Probe(kind)) {
    any_preferred = any_preferred || entry.first.preferred;
    list.push_back(entry.first);
    gst_object_unref(entry.second);
  }
  Device v;
  v.kind = kind;
  v.is_virtual = true;
  switch (kind) {
    case Device::kMicrophone:
      v.id = kTestToneMicrophone;
      v.name = "Test tone";
      break;
    case Device::kSpeaker:
      v.id = kNullSpeaker;
      v.name = "No speaker";
      break;
    case Device::kCamera:
      v.id = kTestPatternCamera;
      v.name = "Test pattern";
      break;
  }
  if (!list.empty() && !any_preferred && kind != Device::kCamera) list.front().preferred = true;
  v.preferred = list.empty() && kind != Device::kCamera;
  list.push_back(v);
  return list;
}

bool FindDevice(Device::Kind kind, const std::string& id, Device* device) {
  for (const Device& d : ListDevices(kind)) {
    if (d.id == id) {
      *device = d;
      return true;
    }
  }
  return false;
}

GstElement* CreateDeviceElement(Device::Kind kind, const std::string& id, bool off) {
  if (kind == Device::kCamera && (id == kTestPatternCamera || off)) {
    // Drawing the bars costs more than encoding them: two pictures a second are drawn (in the
    // encoder's format, at the size asked downstream) and the latest one is repeated at the
    // camera's rate.
    GstElement* camera = ParsedBin(
        "videotestsrc name=pattern is-live=true ! video/x-raw,format=I420,framerate=2/1 ! "
        "imagefreeze is-live=true allow-replace=true");
    if (camera) SetTestPattern(camera, !off);
    return camera;
  }
  if (kind == Device::kMicrophone && (id == kTestToneMicrophone || off)) {
    // Made at the encoder's rate and channel count in 20 ms buffers (Opus frames): left to
    // itself the source picks 44.1 kHz, and every buffer is then resampled.
    GstElement* microphone = ParsedBin(
        "audiotestsrc name=tone is-live=true freq=440 samplesperbuffer=960 ! "
        "capsfilter caps=audio/x-raw,rate=48000,channels=1");
    if (microphone) SetTestTone(microphone, !off);
    return microphone;
  }
  if (kind == Device::kSpeaker && id == kNullSpeaker) {
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    if (sink) g_object_set(sink, "sync", TRUE, "async", FALSE, nullptr);
    return sink;
  }
  GstElement* element = nullptr;
  for (auto& entry : Probe(kind)) {
    if (!element && entry.first.id == id)
      element = gst_device_create_element(entry.second, nullptr);
    gst_object_unref(entry.second);
  }
  return element;
}

void SetTestPattern(GstElement* camera, bool on) {
  GstElement* pattern = Inner(camera, "pattern");
  gst_util_set_object_arg(G_OBJECT(pattern), "pattern", on ? "smpte" : "black");
  gst_object_unref(pattern);
}

void SetTestTone(GstElement* microphone, bool on) {
  GstElement* tone = Inner(microphone, "tone");
  g_object_set(tone, "volume", on ? 0.3 : 0.0, nullptr);
  gst_util_set_object_arg(G_OBJECT(tone), "wave", on ? "sine-table" : "silence");
  gst_object_unref(tone);
}

const std::vector<std::string>& CameraProfiles() {
  static const std::vector<std::string> profiles = {"VP8 640x480 (30FPS)", "VP8 1280x720 (30FPS)",
                                                    "VP8 320x240 (15FPS)"};
  return profiles;
}

bool ProfileSize(const std::string& profile, int* width, int* height, int* fps) {
  for (const std::string& known : CameraProfiles()) {
    if (known == profile) {
      return std::sscanf(profile.c_str(), "VP8 %dx%d (%dFPS)", width, height, fps) == 3;
    }
  }
  return false;
}

}  // namespace ktopen
