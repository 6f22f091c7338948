#include "platform/linux/devices/backlight.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/linux/devices/attribute_folder.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

constexpr std::array<std::string_view, 3> kTypes = {"firmware", "platform", "raw"};

// Place in the order of the kinds; anything else comes last.
auto typeRank(const Backlight& device) {
  return std::ranges::find(kTypes, device.type.value_or("")) - kTypes.begin();
}

int parentRank(const Backlight& device) {
  const std::string& subsystem = device.parent_subsystem;
  if (subsystem == "hid" || subsystem == "input" || device.name == "appletb_backlight") return 3;
  if (device.is_on_enabled_connector) return 0;
  return subsystem == "platform" ? 1 : 2;
}

Backlight readDevice(const std::string& path, const std::string& name) {
  const AttributeFolder parent(path + "/device");
  return {.name = name,
          .type = AttributeFolder(path).text("type"),
          .parent_subsystem = parent.linkedName("subsystem"),
          .is_on_enabled_connector = parent.text("enabled") == "enabled"};
}

}  // namespace

const Backlight* chiefBacklight(std::span<const Backlight> devices) {
  const auto chief = std::ranges::min_element(devices, [](const Backlight& a, const Backlight& b) {
    return std::tuple(typeRank(a), parentRank(a), std::string_view(a.name)) <
           std::tuple(typeRank(b), parentRank(b), std::string_view(b.name));
  });
  return chief == devices.end() ? nullptr : &*chief;
}

std::optional<BacklightService> readBacklight(const std::string& sys_root) {
  const std::string class_folder = sys_root + "/class/backlight";
  std::vector<Backlight> devices;
  for (const std::string& name : listFolder(class_folder)) {
    devices.push_back(readDevice(class_folder + '/' + name, name));
  }
  const Backlight* chief = chiefBacklight(devices);
  if (!chief) return std::nullopt;
  const AttributeFolder folder(class_folder + '/' + chief->name);
  PropertyTable brightness{{"min", PropertyValue{std::int64_t{0}}}};
  // The setting, as asked for. What the panel shows (actual_brightness) is 0 while the display is off.
  std::optional<std::int64_t> value = folder.integer("brightness");
  const std::optional<std::int64_t> max = folder.integer("max_brightness");
  if (value && max) value = std::clamp<std::int64_t>(*value, 0, std::max<std::int64_t>(*max, 0));
  if (value) brightness.set("value", PropertyValue{*value});
  if (max) brightness.set("max", PropertyValue{*max});
  return BacklightService{
      .properties = {{"backlight-control", PropertyValue{true}},
                     {std::string(kDisplayParametersProperty),
                      PropertyValue{PropertyTable{{"brightness", PropertyValue{brightness}}}}}},
      .tells_brightness = value && max && *max > 0};
}

}  // namespace volorn::linux_host
