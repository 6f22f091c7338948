#pragma once

#include <string>
#include <utility>

#include "platform/thermal.h"

namespace volorn::linux_host {

class LinuxThermal : public Thermal {
 public:
  explicit LinuxThermal(std::string sys_root) : sys_root_(std::move(sys_root)) {}

  // The worst of the zones in <sys_root>/class/thermal, 0 to 4; see thermalLevel().
  std::int32_t CurrentThermalLevel() override;

 private:
  std::string sys_root_;
};

}  // namespace volorn::linux_host
