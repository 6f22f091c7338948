#pragma once

#include <string>
#include <utility>

#include "platform/battery_usage.h"
#include "platform/linux/devices/read_power_supply.h"
#include "platform/linux/stand_ins.h"
#include "platform/linux/state/state_file.h"

namespace volorn::linux_host {

// The books of usage in the state file, with the interval since their newest mark, which is added here and
// not kept. There is no port to ask.
class LinuxBatteryUsage : public BatteryUsage {
 public:
  // Until books are given every query fails.
  LinuxBatteryUsage(std::string proc_root, SupplyReadings& supplies, StandIns& stand_ins)
      : proc_root_(std::move(proc_root)), supplies_(supplies), stand_ins_(stand_ins) {}

  // Where the books are; null for none.
  void setBooks(StateFile* state_file) { state_file_ = state_file; }

  std::uint32_t ShellServerPort() override { return 0; }

  // A query fails while the sums are unknown, and where the books do not fit what is seen.
  void BatteryUsageTimes(std::uint32_t port, float& usage_seconds, float& standby_seconds,
                         std::uint8_t& fully_charged_once, std::uint8_t& flag_b) override;

 private:
  std::string proc_root_;
  SupplyReadings& supplies_;
  StandIns& stand_ins_;
  StateFile* state_file_ = nullptr;
};

}  // namespace volorn::linux_host
