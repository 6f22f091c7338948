#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace volorn::linux_host {

// What a thread's stack in the kernel takes, which Linux tells nobody: 8 KiB with 32-bit kernels, 16 KiB with
// 64-bit ones, or a page where that is more. `machine` is uname(2)'s, which names the kernel's processor: a
// program of 32 bits may run on a kernel of 64.
constexpr std::uint64_t kernelStackBytes(std::string_view machine, std::uint64_t page_size_bytes) {
  // How 64-bit ARM names itself to those of its programs that ask for a 32-bit machine.
  const bool is_64_bit =
      sizeof(void*) == 8 || machine.find("64") != std::string_view::npos || machine == "armv8l";
  return std::max<std::uint64_t>(is_64_bit ? 16384 : 8192, page_size_bytes);
}

}  // namespace volorn::linux_host
