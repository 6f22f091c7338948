#pragma once

#include <string>
#include <utility>

#include "platform/linux/stand_ins.h"
#include "platform/thermal.h"

namespace volorn::linux_host {

class LinuxThermal : public Thermal {
 public:
  LinuxThermal(std::string sys_root, StandIns& stand_ins)
      : sys_root_(std::move(sys_root)), stand_ins_(stand_ins) {}

  // The worst of the zones in <sys_root>/class/thermal, 0 to 4; see thermalLevel(),
  // for whose none 0 stands in.
  std::int32_t CurrentThermalLevel() override;

 private:
  std::string sys_root_;
  StandIns& stand_ins_;
};

}  // namespace volorn::linux_host
