#pragma once

#include <cstdint>
#include <vector>

namespace volorn::linux_host {

// Lists the entries of a folder whose names are numbers above 0, as those of processes and threads are, in
// the kernel's order. `numbers` is cleared first. Returns 0 or errno; after a failure there may be some.
int listNumberedEntries(int folder_fd, std::vector<std::int32_t>& numbers);

// How many entries a folder has, "." and ".." left out. Negative when it cannot be read.
std::int64_t countEntries(int folder_fd);

}  // namespace volorn::linux_host
