#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

struct MemoryInfo {
  std::optional<std::uint64_t> total_kib;
  std::optional<std::uint64_t> free_kib;
  std::optional<std::uint64_t> available_kib;  // Linux has told it since 3.14
  std::optional<std::uint64_t> active_kib;
  std::optional<std::uint64_t> inactive_kib;
  std::optional<std::uint64_t> swap_total_kib;
  std::optional<std::uint64_t> swap_free_kib;
};

// The text of /proc/meminfo, a field a line:
//   MemTotal:        4030780 kB
//   MemFree:         1747144 kB
//   MemAvailable:    3612296 kB
//   Active:           734456 kB
//   Inactive:        1635460 kB
//   SwapTotal:             0 kB
//   SwapFree:              0 kB
// A field that cannot be read is none.
MemoryInfo parseMemoryInfo(std::string_view text);

}  // namespace volorn::linux_host
