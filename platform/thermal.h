#pragma once

#include <cstdint>

namespace volorn {

class Thermal {
 public:
  virtual ~Thermal() = default;

  // The device's thermal level; 0 when nothing is hot or nothing can be told.
  virtual std::int32_t CurrentThermalLevel() = 0;
};

}  // namespace volorn
