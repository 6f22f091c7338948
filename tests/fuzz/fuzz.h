#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace volorn {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Stops the fuzzer at an input for which a promise does not hold.
inline void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace volorn
