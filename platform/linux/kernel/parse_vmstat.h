#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// Since the system started.
struct VmCounters {
  std::uint64_t read_kib = 0;  // from block devices
  std::uint64_t written_kib = 0;
  std::uint64_t activations = 0;  // pages
  std::uint64_t faults = 0;
};

// The text of /proc/vmstat, a counter a line:
//   pgpgin 2075937
//   pgpgout 3069036
//   pgactivate 404010
//   pgfault 33209852
// A counter that the kernel does not keep is 0. None when one is no number.
std::optional<VmCounters> parseVmCounters(std::string_view text);

}  // namespace volorn::linux_host
