#pragma once

#include <unistd.h>

#include <cstdint>

namespace volorn::linux_host {

inline std::uint64_t pageSizeBytes() {
  return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace volorn::linux_host
