#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/regions/mapping.h"

namespace volorn::linux_host {

// A piece of the text of /proc/PID/smaps: for each mapping a line as in `maps`, then its fields.
//   7f3a1c628000-7f3a1c77d000 r-xp 00026000 fe:00 11536 /usr/lib/x86_64-linux-gnu/libc.so.6 Size: 1364 kB
//   Shared_Clean:       1132 kB
//   Shared_Dirty:          0 kB
//   Private_Clean:         4 kB
//   Private_Dirty:         0 kB
//   Swap:                  0 kB
//   VmFlags: rd ex mr mw me
// Appends the mappings. A field belongs to the last of them, which an earlier piece may have brought. Returns
// the bytes taken, all whole lines; none when the text is no such text. Names need no care: the kernel writes
// a newline in one as \012.
std::optional<std::size_t> parseSmaps(std::string_view text, std::uint64_t page_size_bytes,
                                      std::vector<Mapping>& mappings);

}  // namespace volorn::linux_host
