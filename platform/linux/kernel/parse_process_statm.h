#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// The resident pages of a process, the second of the numbers in /proc/PID/statm. None for a text that does
// not tell them.
//
//   4561 1027 861 5 0 431 0
std::optional<std::uint64_t> parseResidentPages(std::string_view text);

}  // namespace volorn::linux_host
