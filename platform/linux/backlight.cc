#include "platform/linux/backlight.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/linux/attribute_folder.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

constexpr std::array<std::string_view, 3> kTypes = {"firmware", "platform", "raw"};

// Place in the order of the kinds; anything else comes last.
auto rank(const Backlight& device) {
  return std::ranges::find(kTypes, device.type.value_or("")) - kTypes.begin();
}

}  // namespace

const Backlight* chiefBacklight(std::span<const Backlight> devices) {
  const auto chief = std::ranges::min_element(devices, [](const Backlight& a, const Backlight& b) {
    return std::tuple(rank(a), std::string_view(a.name)) < std::tuple(rank(b), std::string_view(b.name));
  });
  return chief == devices.end() ? nullptr : &*chief;
}

std::optional<PropertyTable> readBacklight(const std::string& sys_root) {
  const std::string class_folder = sys_root + "/class/backlight";
  std::vector<Backlight> devices;
  for (const std::string& name : listFolder(class_folder)) {
    devices.push_back({.name = name, .type = AttributeFolder(class_folder + '/' + name).text("type")});
  }
  const Backlight* chief = chiefBacklight(devices);
  if (!chief) return std::nullopt;
  const AttributeFolder folder(class_folder + '/' + chief->name);
  PropertyTable brightness{{"min", PropertyValue{std::int64_t{0}}}};
  // The setting, as asked for. What the panel shows (actual_brightness) is 0 while the display is off.
  if (const auto value = folder.integer("brightness")) brightness.set("value", PropertyValue{*value});
  if (const auto max = folder.integer("max_brightness")) brightness.set("max", PropertyValue{*max});
  return PropertyTable{
      {"backlight-control", PropertyValue{true}},
      {std::string(kDisplayParametersProperty),
       PropertyValue{PropertyTable{{"brightness", PropertyValue{brightness}}}}},
  };
}

}  // namespace volorn::linux_host
