// Devices that disappear during a meeting: the device monitor's removals, and the device to fall
// back to when the one in use is gone.
#ifndef KTOPEN_HOTPLUG_H
#define KTOPEN_HOTPLUG_H

#include <gst/gst.h>

#include <string>
#include <utility>
#include <vector>

#include "devices.h"

namespace ktopen {

// Follows the microphones, speakers and cameras of the system while started. Its bus is polled
// (Removed), so it needs no main loop. One thread at a time.
class DeviceWatch {
 public:
  DeviceWatch() = default;
  DeviceWatch(const DeviceWatch&) = delete;
  DeviceWatch& operator=(const DeviceWatch&) = delete;
  ~DeviceWatch() { Stop(); }
  void Start();
  void Stop();
  bool running() const { return monitor_ != nullptr; }
  // The devices removed since the last call, by kind and id.
  std::vector<std::pair<Device::Kind, std::string>> Removed();

 private:
  GstDeviceMonitor* monitor_ = nullptr;
  GstBus* bus_ = nullptr;
};

// The device to use in place of `gone`: the preferred one of `now` (the system's default, or the
// virtual device when there is no real one), else the first other than `gone`; "" when none.
std::string FallbackDevice(const std::vector<Device>& now, const std::string& gone);

}  // namespace ktopen

#endif  // KTOPEN_HOTPLUG_H
