#pragma once

#include <optional>
#include <span>
#include <string>

#include "platform/device_registry.h"

namespace volorn::linux_host {

// An entry of /sys/class/backlight.
struct Backlight {
  std::string name;
  std::optional<std::string> type;  // firmware, platform or raw; none when it could not be read
};

// The device that sets the display: several may drive one panel, and the one nearest the firmware knows it
// best. Devices of one kind go by the byte order of their names. Null for no devices.
const Backlight* chiefBacklight(std::span<const Backlight> devices);

// Properties of the chief device in <sys_root>/class/backlight: "backlight-control" is true, and "brightness"
// in kDisplayParametersProperty goes from 0 to max_brightness in steps of the device's own. A value that
// cannot be read is left out; none without a device.
std::optional<PropertyTable> readBacklight(const std::string& sys_root);

}  // namespace volorn::linux_host
