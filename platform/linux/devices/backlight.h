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
  std::string parent_subsystem;     // bus or class of the device that it belongs to; empty without one
  bool is_on_enabled_connector = false;
};

// The device that sets the display: several may drive one panel, and the one nearest the firmware knows it
// best. Of one kind the one on a connector that shows something comes first, then those of platform devices;
// last are strips of keys and the like; and so many alike go by the byte order of their names. Null for no
// devices.
const Backlight* chiefBacklight(std::span<const Backlight> devices);

struct BacklightService {
  PropertyTable properties;
  bool tells_brightness = false;  // the setting and its bound, which is above 0
};

// The chief device in <sys_root>/class/backlight. Of its properties "backlight-control" is true, and
// "brightness" in kDisplayParametersProperty goes from 0 to max_brightness in steps of the device's own. A
// value that cannot be read is left out; none without a device.
std::optional<BacklightService> readBacklight(const std::string& sys_root);

}  // namespace volorn::linux_host
