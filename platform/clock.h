#pragma once

#include <cstdint>

#include "platform/date.h"

namespace volorn {

class Clock {
 public:
  virtual ~Clock() = default;

  // Whole seconds since 1 January 1970 00:00:00 UTC; -1 when the clock cannot be read.
  virtual std::int64_t time() = 0;

  virtual Date now() = 0;
};

}  // namespace volorn
