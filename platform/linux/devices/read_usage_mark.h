#pragma once

#include <span>
#include <string>

#include "platform/linux/devices/power_supply.h"
#include "platform/linux/usage_books.h"

namespace volorn::linux_host {

// What this machine shows now, by the roots of /proc and /sys. Whether it is the last mark, and whether some
// were lost, is the caller's to tell.
UsageMark readUsageMark(const std::string& proc_root, const std::string& sys_root);

// The same of supplies that have just been read.
UsageMark readUsageMark(const std::string& proc_root, std::span<const PowerSupply> supplies);

// How long the machine has slept since it was started.
std::int64_t readSleepNs();

}  // namespace volorn::linux_host
