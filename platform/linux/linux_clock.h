#pragma once

#include "platform/clock.h"
#include "platform/uptime.h"

namespace volorn::linux_host {

class LinuxClock : public Clock {
 public:
  std::int64_t time() override;
  Date now() override;
};

class LinuxUptime : public Uptime {
 public:
  // 0 when the kernel does not tell.
  double UptimeSeconds() override;
};

}  // namespace volorn::linux_host
