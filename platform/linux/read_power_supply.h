#pragma once

#include <string>
#include <vector>

#include "platform/linux/power_supply.h"

namespace volorn::linux_host {

// The system's batteries and chargers in <sys_root>/class/power_supply.
std::vector<PowerSupply> readPowerSupplies(const std::string& sys_root);

}  // namespace volorn::linux_host
