#include "platform/linux/devices/read_usage_mark.h"

#include <ctime>

#include "platform/linux/devices/read_power_supply.h"
#include "platform/linux/parse_number.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

std::int64_t nanoseconds(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// As of one moment: who loses the processor between them, or is sent to sleep, reads them again.
void readClocks(UsageMark& mark) {
  constexpr std::int64_t kMomentNs = 1'000'000;
  constexpr int kTries = 5;
  for (int i = 0; i < kTries; ++i) {
    const std::int64_t before_ns = nanoseconds(CLOCK_BOOTTIME);
    mark.monotonic_ns = nanoseconds(CLOCK_MONOTONIC);
    mark.boottime_ns = nanoseconds(CLOCK_BOOTTIME);
    if (mark.boottime_ns - before_ns < kMomentNs) return;
  }
}

}  // namespace

std::int64_t readSleepNs() {
  UsageMark mark;
  readClocks(mark);
  return mark.boottime_ns - mark.monotonic_ns;
}

UsageMark readUsageMark(const std::string& proc_root, const std::string& sys_root) {
  return readUsageMark(proc_root, readPowerSupplies(sys_root));
}

UsageMark readUsageMark(const std::string& proc_root, std::span<const PowerSupply> supplies) {
  constexpr std::size_t kBootIdLimitBytes = 64;
  UsageMark mark;
  if (const SupplyState plugged_in = pluggedIn(supplies); plugged_in.is_known) {
    mark.plugged_in = plugged_in.holds;
  }
  mark.has_battery = powerSourceProperties(supplies).has_value();
  mark.is_full = fullyCharged(supplies).holds;
  const FileBytes boot_id = readFile(proc_root + "/sys/kernel/random/boot_id", kBootIdLimitBytes);
  mark.boot_id = withoutTrailingBlanks(boot_id.bytes);
  if (mark.boot_id.empty()) mark.plugged_in.reset();  // it could be any boot
  readClocks(mark);
  return mark;
}

}  // namespace volorn::linux_host
