#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace volorn::ctl {

// Who a sample is of, for those who collect them from many devices.
struct Device {
  std::string id;  // 32 hexadecimal digits
  std::string os_name;
  std::string os_version;
  std::vector<std::pair<std::string, std::string>> labels;  // the owner's; names as Prometheus has them
};

// The number that a machine has for this use alone, of its machine id, 32 hexadecimal digits: as systemd's
// sd_id128_get_machine_app_specific() does, it cannot be turned back. Empty for what is no machine id.
std::string idForCollectors(std::string_view machine_id);

// This device, by the files below `root`. Throws std::runtime_error for one without a machine id.
Device readDevice(const std::string& root = "");

}  // namespace volorn::ctl
