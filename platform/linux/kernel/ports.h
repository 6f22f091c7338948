#pragma once

#include "platform/kernel.h"

namespace volorn::linux_host {

// The ports that are there without being lent.
inline constexpr PortName kHostPort = 1;
inline constexpr PortName kOwnTaskPort = 2;
inline constexpr PortName kProcessorSetNamePort = 3;
inline constexpr PortName kProcessorSetPort = 4;

inline constexpr PortName kFirstLentPort = 16;

}  // namespace volorn::linux_host
