#include "platform/linux/linux_clock.h"

#include <ctime>

namespace volorn::linux_host {
namespace {

double seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

// Not the C library's time(): the kernel moves what that reads only once a tick, so that it may still show
// yesterday when now() shows today.
std::int64_t LinuxClock::time() {
  timespec time = {};
  return clock_gettime(CLOCK_REALTIME, &time) == 0 ? time.tv_sec : -1;
}

Date LinuxClock::now() {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return Date::fromSecondsSince1970(seconds(time));
}

double LinuxUptime::UptimeSeconds() {
  timespec time = {};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return seconds(time);
}

}  // namespace volorn::linux_host
