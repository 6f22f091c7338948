#pragma once

#include "platform/battery_usage.h"

namespace volorn::linux_host {

// No service of Linux keeps these times: the port is none and every query fails.
class LinuxBatteryUsage : public BatteryUsage {
 public:
  std::uint32_t ShellServerPort() override { return 0; }
  void BatteryUsageTimes(std::uint32_t /*port*/, float& /*usage_seconds*/, float& /*standby_seconds*/,
                         std::uint8_t& /*fully_charged_once*/, std::uint8_t& /*flag_b*/) override {}
};

}  // namespace volorn::linux_host
