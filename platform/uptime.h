#pragma once

namespace volorn {

class Uptime {
 public:
  virtual ~Uptime() = default;

  // Seconds since the system started, time asleep included.
  virtual double UptimeSeconds() = 0;
};

}  // namespace volorn
