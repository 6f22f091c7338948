#pragma once

#include <cstddef>

namespace volorn {

// The next allocation of `min_bytes` to `max_bytes` through operator new finds no memory; those after it do.
void failNextAllocation(std::size_t min_bytes, std::size_t max_bytes);

}  // namespace volorn
