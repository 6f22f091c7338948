#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/devices/power_supply.h"

namespace volorn::linux_host {

// The system's batteries, uninterruptible supplies and chargers in <sys_root>/class/power_supply.
std::vector<PowerSupply> readPowerSupplies(const std::string& sys_root);

// One reading for all that a snapshot asks of them: what it tells of usage, charge and plug is of one moment,
// and costs a run once.
class SupplyReadings {
 public:
  explicit SupplyReadings(std::string sys_root) : sys_root_(std::move(sys_root)) {}

  // For the answer that is stored under this snapshot key: the newest reading, or a new one where that has
  // answered for the key already. Keys are the constants of platform/snapshot_keys.h, which outlive this. The
  // reading lasts until the next call.
  const std::vector<PowerSupply>& readFor(std::string_view key);

 private:
  std::string sys_root_;
  std::vector<PowerSupply> newest_;
  std::vector<std::string_view> answered_;  // none before the first reading
};

}  // namespace volorn::linux_host
