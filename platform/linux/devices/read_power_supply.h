#pragma once

#include <string>
#include <vector>

#include "platform/linux/devices/power_supply.h"

namespace volorn::linux_host {

// The system's batteries, uninterruptible supplies and chargers in <sys_root>/class/power_supply.
std::vector<PowerSupply> readPowerSupplies(const std::string& sys_root);

}  // namespace volorn::linux_host
