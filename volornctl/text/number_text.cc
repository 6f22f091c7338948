#include "volornctl/text/number_text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace volorn::ctl {

std::string decimalText(double value, int digits) {
  char text[32];
  // A number of such a size needs an exponent to fit.
  std::snprintf(text, sizeof text, std::abs(value) < 1e15 ? "%.*f" : "%.*g", digits, value);
  return text;
}

std::string scaledText(std::int64_t value, std::size_t digits) {
  const auto bits = static_cast<std::uint64_t>(value);
  std::string text = std::to_string(value < 0 ? 0 - bits : bits);
  if (text.size() <= digits) text.insert(0, digits + 1 - text.size(), '0');
  if (digits > 0) text.insert(text.size() - digits, 1, '.');
  return value < 0 ? "-" + text : text;
}

std::string sizeText(double bytes) {
  static constexpr std::array kUnits = {" KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
  // What would be rounded up to 1024.0 is one of the next unit.
  constexpr double kFullUnit = 1023.95;
  if (std::abs(bytes) < 1023.5) return decimalText(bytes, 0) + " B";
  double value = bytes / 1024;
  std::size_t unit = 0;
  for (; std::abs(value) >= kFullUnit && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  return decimalText(value, 1) + kUnits[unit];
}

std::string shortSizeText(double bytes) {
  static constexpr std::array kUnits = {"", "K", "M", "G", "T", "P", "E"};
  std::size_t unit = 0;
  // What would be rounded up to 1024 is one of the next unit.
  for (; bytes >= 1023.5 && unit + 1 < kUnits.size(); ++unit) bytes /= 1024;
  return decimalText(bytes, unit > 0 && bytes < 99.95 ? 1 : 0) + kUnits[unit];
}

}  // namespace volorn::ctl
