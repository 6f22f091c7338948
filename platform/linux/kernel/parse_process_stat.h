#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// A process or one of its threads.
struct ProcessStat {
  // The kernel's own threads may have longer names than the 15 bytes of everyone else.
  static constexpr std::size_t kNameCapacityBytes = 64;

  std::array<char, kNameCapacityBytes> name_bytes = {};
  std::size_t name_length_bytes = 0;
  char state = 0;
  std::int32_t parent = 0;
  std::int32_t group = 0;
  std::uint32_t flags = 0;
  std::uint64_t minor_faults = 0;
  std::uint64_t major_faults = 0;
  std::uint64_t user_ticks = 0;
  std::uint64_t system_ticks = 0;
  std::uint32_t threads = 0;
  std::uint64_t start_ticks = 0;  // since the system started
  std::uint64_t start_code = 0;   // address; 0 or 1 for a reader without rights
  std::int32_t processor = 0;     // on which it ran last

  bool operator==(const ProcessStat&) const = default;

  // Any bytes but NUL.
  std::string_view name() const { return {name_bytes.data(), name_length_bytes}; }
};

// The text of /proc/PID/stat and /proc/PID/task/TID/stat:
//   11206 ((bash) process) S 11205 11206 10922 0 -1 4194368 152 169 0 0 3 5 0 0 20 0 1 0 312853 4595712 ...
// The name ends at the last parenthesis.
std::optional<ProcessStat> parseProcessStat(std::string_view text);

}  // namespace volorn::linux_host
