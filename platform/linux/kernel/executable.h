#pragma once

#include <optional>

#include "platform/linux/kernel/parse_elf.h"

namespace volorn::linux_host {

// What an open executable file tells of itself; none without one. Of a file that says what cannot be, no more
// is read.
std::optional<BuildId> readBuildId(int file);

}  // namespace volorn::linux_host
