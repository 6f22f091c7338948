#pragma once

#include <cstdlib>

#include "platform/random.h"

namespace volorn::linux_host {

class LinuxRandom : public Random {
 public:
  std::uint32_t arc4random() override { return ::arc4random(); }
};

}  // namespace volorn::linux_host
