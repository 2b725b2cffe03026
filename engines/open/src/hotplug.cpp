#include "hotplug.h"

namespace ktopen {

void DeviceWatch::Start() {
  if (monitor_) return;
  monitor_ = gst_device_monitor_new();
  for (const char* kind : {"Audio/Source", "Audio/Sink", "Video/Source"}) {
    gst_device_monitor_add_filter(monitor_, kind, nullptr);
  }
  bus_ = gst_device_monitor_get_bus(monitor_);
  if (!gst_device_monitor_start(monitor_)) Stop();  // no provider: nothing to follow
}

void DeviceWatch::Stop() {
  if (!monitor_) return;
  gst_device_monitor_stop(monitor_);
  if (bus_) gst_object_unref(bus_);
  gst_object_unref(monitor_);
  bus_ = nullptr;
  monitor_ = nullptr;
}

std::vector<std::pair<Device::Kind, std::string>> DeviceWatch::Removed() {
  std::vector<std::pair<Device::Kind, std::string>> removed;
  if (!bus_) return removed;
  while (GstMessage* message = gst_bus_pop_filtered(bus_, GST_MESSAGE_DEVICE_REMOVED)) {
    GstDevice* device = nullptr;
    gst_message_parse_device_removed(message, &device);
    if (device) {
      const Device::Kind kind = gst_device_has_classes(device, "Audio/Source") ? Device::kMicrophone
                                : gst_device_has_classes(device, "Audio/Sink") ? Device::kSpeaker
                                                                               : Device::kCamera;
      removed.emplace_back(kind, DeviceId(device));
      gst_object_unref(device);
    }
    gst_message_unref(message);
  }
  return removed;
}

std::string FallbackDevice(const std::vector<Device>& now, const std::string& gone) {
  std::string first;
  for (const Device& d : now) {
    if (d.id == gone) continue;
    if (d.preferred) return d.id;
    if (first.empty()) first = d.id;
  }
  return first;
}

}  // namespace ktopen
