#pragma once

#include <cstdint>

namespace volorn {

// What the system shell keeps of the time on battery.
class BatteryUsage {
 public:
  virtual ~BatteryUsage() = default;

  // The shell's server port, an opaque handle; 0 where there is none.
  virtual std::uint32_t ShellServerPort() = 0;

  // Fills in the seconds of use and of standby since the last full charge, whether the battery has been fully
  // charged once, and a second flag. A query that fails writes nothing.
  virtual void BatteryUsageTimes(std::uint32_t port, float& usage_seconds, float& standby_seconds,
                                 std::uint8_t& fully_charged_once, std::uint8_t& flag_b) = 0;
};

}  // namespace volorn
