#pragma once

#include <cstdint>
#include <limits>

namespace volorn {

// Truncates toward zero, saturates at the kind's bounds, and gives 0 for NaN: a plain cast is undefined
// outside the range.
template <typename Integer>
constexpr Integer saturateTo(double value) {
  using Limits = std::numeric_limits<Integer>;
  // 2 to the power of the kind's value bits: the first number too large, which a double holds exactly,
  // whereas the largest 64-bit number rounds up to it.
  constexpr double kBeyond = 2.0 * static_cast<double>(Integer{1} << (Limits::digits - 1));
  if (value != value) return 0;
  if (value >= kBeyond) return Limits::max();
  if (value <= static_cast<double>(Limits::min())) return Limits::min();
  return static_cast<Integer>(value);
}

constexpr std::int32_t toInt32Trunc(double value) {
  return saturateTo<std::int32_t>(value);
}

}  // namespace volorn
