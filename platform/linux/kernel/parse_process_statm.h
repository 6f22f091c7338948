#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// Of a process; zeros for one without memory of its own.
struct ProcessPages {
  std::uint64_t mapped = 0;
  std::uint64_t resident = 0;
  std::uint64_t shared = 0;  // of the resident ones those of files and of shared memory

  bool operator==(const ProcessPages&) const = default;
};

// The first of the numbers in /proc/PID/statm. None for a text that does not tell them.
//
//   4561 1027 861 5 0 431 0
std::optional<ProcessPages> parseProcessPages(std::string_view text);

}  // namespace volorn::linux_host
