#pragma once

#include <cstddef>

namespace volorn {

// The next allocation of `min_bytes` to `max_bytes` through operator new finds no memory; those after it do.
void failNextAllocation(std::size_t min_bytes, std::size_t max_bytes);

// Lets so many allocations pass, of any size; the one after them finds no memory. Only for this thread's.
void failAllocationAfter(std::size_t passed);

// Whether it has come to that allocation. There is none to come afterwards.
bool allocationHasFailed();

}  // namespace volorn
