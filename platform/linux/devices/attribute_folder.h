#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace volorn::linux_host {

// A device's folder below /sys, in which each file holds one value. A driver may refuse any of them at any
// time (ENODEV, EINVAL, EAGAIN, EIO, nothing at all), so each value is read by itself and may be none.
class AttributeFolder {
 public:
  explicit AttributeFolder(const std::string& path) : prefix_(path + '/') {}

  std::optional<std::int64_t> integer(std::string_view name) const;

  // The text without the newline and blanks at its end; none for an empty one.
  std::optional<std::string> text(std::string_view name) const;

  // The last name of the path that a link holds: of `subsystem` the bus or class of the device. Empty for
  // what is no link.
  std::string linkedName(std::string_view name) const;

 private:
  std::string prefix_;
};

}  // namespace volorn::linux_host
