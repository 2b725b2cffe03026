#include "devices.h"

#include <gst/video/video.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "test_camera.h"

namespace ktopen {

const char* const kTestPatternCamera = "test-pattern";
const char* const kTestCamera = "test-camera";
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

// The named element inside a virtual source made by CreateDeviceElement (a new reference).
GstElement* Inner(GstElement* source, const char* name) {
  GstElement* inner = GST_IS_BIN(source) ? gst_bin_get_by_name(GST_BIN(source), name) : nullptr;
  return inner ? inner : GST_ELEMENT(gst_object_ref(source));
}

// The virtual camera's switch. The pattern element is never changed while it runs (videotestsrc
// frees the picture it repeats when its pattern changes, under its streaming thread's feet): a
// probe on its output paints each picture black instead while the camera is off.
constexpr const char* kCameraOffKey = "ktopen-camera-off";

// The I420 picture a camera probe is about to pass on, made writable and mapped into *frame
// (unmap it after); false when it is in another format.
bool MapPicture(GstPad* pad, GstPadProbeInfo* info, GstVideoFrame* frame) {
  GstCaps* caps = gst_pad_get_current_caps(pad);
  GstVideoInfo video;
  const bool known = caps && gst_video_info_from_caps(&video, caps);
  if (caps) gst_caps_unref(caps);
  if (!known || GST_VIDEO_INFO_FORMAT(&video) != GST_VIDEO_FORMAT_I420) return false;
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return gst_video_frame_map(frame, &video, buffer, GST_MAP_WRITE);
}

GstPadProbeReturn PaintBlack(GstPad* pad, GstPadProbeInfo* info, gpointer off) {
  if (!static_cast<std::atomic<bool>*>(off)->load(std::memory_order_relaxed)) {
    return GST_PAD_PROBE_OK;
  }
  GstVideoFrame frame;
  if (!MapPicture(pad, info, &frame)) return GST_PAD_PROBE_OK;
  for (guint plane = 0; plane < 3; ++plane) {
    const int rows = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane);
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    auto* data = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    std::memset(data, plane == 0 ? 16 : 128, static_cast<size_t>(rows) * stride);
  }
  gst_video_frame_unmap(&frame);
  return GST_PAD_PROBE_OK;
}

// The moving picture (test_camera.h) drawn over each repeated picture while the camera is on and
// the moving one was chosen.
constexpr const char* kCameraMovingKey = "ktopen-camera-moving";

struct MovingPicture {
  std::atomic<bool> moving{false};
  std::atomic<bool>* off = nullptr;  // the camera's switch, owned by its pattern element
  uint32_t frames = 0;               // the streaming thread's own
};

GstPadProbeReturn DrawMoving(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  auto* picture = static_cast<MovingPicture*>(data);
  if (!picture->moving.load(std::memory_order_relaxed) ||
      picture->off->load(std::memory_order_relaxed)) {
    return GST_PAD_PROBE_OK;
  }
  GstVideoFrame frame;
  if (!MapPicture(pad, info, &frame)) return GST_PAD_PROBE_OK;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  DrawTestCamera(static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)),
                 GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0),
                 static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 1)),
                 static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 2)),
                 GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1), GST_VIDEO_FRAME_WIDTH(&frame),
                 GST_VIDEO_FRAME_HEIGHT(&frame), picture->frames++, static_cast<uint32_t>(ms),
                 CurrentPictureIdentity());
  gst_video_frame_unmap(&frame);
  return GST_PAD_PROBE_OK;
}

}  // namespace

GstElement* ParsedBin(const char* description) {
  GError* problem = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description, TRUE, &problem);
  if (problem) g_error_free(problem);
  return bin;
}

bool IsVirtualSource(Device::Kind kind, const std::string& id) {
  switch (kind) {
    case Device::kMicrophone:
      return id == kTestToneMicrophone;
    case Device::kCamera:
      return id == kTestPatternCamera || id == kTestCamera;
    case Device::kSpeaker:
      return id == kNullSpeaker;
  }
  return false;
}

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
  if (kind == Device::kCamera) {
    v.id = kTestCamera;
    v.name = "Test camera";
    list.push_back(v);
  }
  return list;
}

std::string DeviceId(GstDevice* device) { return IdOf(device); }

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
  if (kind == Device::kCamera && (IsVirtualSource(kind, id) || off)) {
    // Drawing the bars costs more than encoding them: two pictures a second are drawn (in the
    // encoder's format, at the size asked downstream) and the latest one is repeated at the
    // camera's rate. The bars are full height: cheaper to encode than the version with a lower
    // band. The moving camera is the same element with its picture drawn over each repeat, so
    // that switching between the two, and off, happens in place.
    GstElement* camera = ParsedBin(
        "videotestsrc name=pattern is-live=true pattern=smpte100 ! "
        "video/x-raw,format=I420,framerate=2/1 ! "
        "imagefreeze name=repeat is-live=true allow-replace=true");
    if (!camera) return nullptr;
    GstElement* pattern = Inner(camera, "pattern");
    GstPad* pad = gst_element_get_static_pad(pattern, "src");
    auto* switched_off = new std::atomic<bool>(off);
    g_object_set_data(G_OBJECT(pattern), kCameraOffKey, switched_off);
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, PaintBlack, switched_off,
                      [](gpointer flag) { delete static_cast<std::atomic<bool>*>(flag); });
    gst_object_unref(pad);
    auto* picture = new MovingPicture();
    picture->moving = id == kTestCamera;
    picture->off = switched_off;
    g_object_set_data(G_OBJECT(pattern), kCameraMovingKey, picture);
    GstElement* repeat = Inner(camera, "repeat");
    pad = gst_element_get_static_pad(repeat, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, DrawMoving, picture,
                      [](gpointer p) { delete static_cast<MovingPicture*>(p); });
    gst_object_unref(pad);
    gst_object_unref(repeat);
    gst_object_unref(pattern);
    return camera;
  }
  if (kind == Device::kMicrophone && (id == kTestToneMicrophone || off)) {
    // Made at the encoder's rate and channel count in 20 ms buffers (Opus frames): left to
    // itself the source picks 44.1 kHz, and every buffer is then resampled.
    GstElement* microphone = ParsedBin(
        "audiotestsrc name=tone is-live=true wave=sine-table freq=440 samplesperbuffer=960 ! "
        "capsfilter caps=audio/x-raw,rate=48000,channels=1");
    if (microphone) SetTestTone(microphone, !off);  // the wave stays: only its volume changes
    return microphone;
  }
  if (kind == Device::kSpeaker && id == kNullSpeaker) {
    // Nothing is played, so nothing waits for the clock: a wait per packet costs a thread wake-up.
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    if (sink) g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
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
  auto* off = static_cast<std::atomic<bool>*>(g_object_get_data(G_OBJECT(pattern), kCameraOffKey));
  if (off) off->store(!on, std::memory_order_relaxed);
  gst_object_unref(pattern);
}

void SwitchVirtualCamera(GstElement* camera, const std::string& id) {
  GstElement* pattern = Inner(camera, "pattern");
  auto* picture =
      static_cast<MovingPicture*>(g_object_get_data(G_OBJECT(pattern), kCameraMovingKey));
  if (picture && !id.empty()) picture->moving.store(id == kTestCamera, std::memory_order_relaxed);
  gst_object_unref(pattern);
  SetTestPattern(camera, !id.empty());
}

void SwitchVirtualMicrophone(GstElement* microphone, const std::string& id) {
  SetTestTone(microphone, !id.empty());
}

void SetTestTone(GstElement* microphone, bool on) {
  GstElement* tone = Inner(microphone, "tone");
  // Changing the wave while the source runs races with its streaming thread; the volume is read
  // once per buffer.
  g_object_set(tone, "volume", on ? 0.3 : 0.0, nullptr);
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
