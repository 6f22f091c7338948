#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>

namespace volorn::ctl {

// None where it is not the whole text. The command line's own parser takes a number too large for the
// largest.
template <typename Number>
std::optional<Number> numberOf(const std::string& text) {
  if constexpr (std::is_floating_point_v<Number>) {
    // Not by std::from_chars: some C++ libraries that devices have know it for whole numbers alone.
    if (text.find_first_not_of("0123456789.eE+-") != std::string::npos || text.starts_with('+'))
      return std::nullopt;
    char* read_to = nullptr;
    const double number = std::strtod(text.c_str(), &read_to);
    return !text.empty() && *read_to == '\0' && std::isfinite(number) ? std::optional<Number>(number)
                                                                      : std::nullopt;
  } else {
    Number number = {};
    const char* end = text.data() + text.size();
    const auto [read_to, failure] = std::from_chars(text.data(), end, number);
    return read_to == end && failure == std::errc() ? std::optional(number) : std::nullopt;
  }
}

// What the command line is told of an option that counts; empty when it is right.
inline std::string checkCount(const std::string& text) {
  const std::optional<std::int64_t> count = numberOf<std::int64_t>(text);
  if (count && *count > 0) return "";
  const std::string most = std::to_string(std::numeric_limits<std::int64_t>::max());
  return "not a whole number from 1 to " + most + ": " + text;
}

// The same of a time between samples.
inline std::string checkInterval(const std::string& text) {
  constexpr double kMostSeconds = 1e6;
  const std::optional<double> seconds = numberOf<double>(text);
  const bool is_good = seconds && *seconds > 0 && *seconds <= kMostSeconds;
  return is_good ? "" : "not a number of seconds above 0 and up to a million: " + text;
}

}  // namespace volorn::ctl
