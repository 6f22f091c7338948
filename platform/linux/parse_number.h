#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// An attribute's text without the newline and blanks at its end.
std::string_view withoutTrailingBlanks(std::string_view text);

// The whole number that an attribute holds, as in
//   47520000
// A sign may stand before the digits, and only blanks behind them. None for anything else: nothing at all,
// a NUL byte, a number beyond 64 bits.
std::optional<std::int64_t> parseInteger(std::string_view text);

// The size in KiB that a line of /proc holds behind its key, as in
//           4030780 kB
std::optional<std::uint64_t> parseKib(std::string_view text);

}  // namespace volorn::linux_host
