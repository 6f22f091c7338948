#pragma once

#include <sys/random.h>

#include <random>

#include "platform/random.h"

namespace volorn::linux_host {

class LinuxRandom : public Random {
 public:
  std::uint32_t arc4random() override {
    std::uint32_t value = 0;
    // Before Linux 3.17 there is the file alone.
    if (getrandom(&value, sizeof value, 0) != sizeof value) value = std::random_device("/dev/urandom")();
    return value;
  }
};

}  // namespace volorn::linux_host
