#pragma once

#include <cstdint>

namespace volorn::linux_host {

// Takes the exclusive flock(2) of an open file, for as long as that stays open. Returns 0, ETIMEDOUT where
// somebody else holds it for longer than that, or another error.
int lockFile(int fd, std::int64_t patience_ms);

}  // namespace volorn::linux_host
