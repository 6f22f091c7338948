#pragma once

#include <cstdint>
#include <string_view>

namespace volorn::linux_host {

// The processor type, as the sampler knows it, of a process whose /proc/PID/auxv this is: pairs of a type and
// a value, in words of 64 bits or of 32 as the program's own are. 0 where there is none, as of a thread of
// the kernel.
//
// The executable would tell as much, but to open it can take for ever where a program serves its file system.
std::uint32_t processorTypeOf(std::string_view auxv);

}  // namespace volorn::linux_host
