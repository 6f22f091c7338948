#pragma once

#include <cstdint>

namespace volorn {

class Random {
 public:
  virtual ~Random() = default;

  // Uniform over all 32-bit values.
  virtual std::uint32_t arc4random() = 0;
};

}  // namespace volorn
