#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>

#include "platform/kernel.h"

namespace volorn::linux_host {

inline constexpr std::array<std::int32_t, 2> kArgumentLimitName = {1, 8};
inline constexpr std::array<std::int32_t, 2> kSwapUsageName = {2, 5};
inline constexpr std::array<std::int32_t, 2> kMemorySizeName = {6, 24};
inline constexpr std::array<std::int32_t, 6> kInterfaceListName = {4, 17, 0, 0, 6, 0};

// Then the pid.
inline constexpr std::array<std::int32_t, 3> kProcessName = {1, 14, 1};
inline constexpr std::array<std::int32_t, 2> kArgumentsName = {1, 49};
inline constexpr std::array<std::int32_t, 2> kProcessorTypeName = {100, 1};

inline bool is(SysctlName name, SysctlName other) {
  return std::ranges::equal(name, other);
}

inline std::optional<std::int32_t> pidBehind(SysctlName name, SysctlName prefix) {
  if (name.size() != prefix.size() + 1 || !is(name.first(prefix.size()), prefix)) return std::nullopt;
  return name.back();
}

// What a call returns that sets errno.
inline int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace volorn::linux_host
