#include "tests/failing_allocation.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::size_t failing_min_bytes = 1;
std::size_t failing_max_bytes = 0;
thread_local std::size_t allocations_to_failure = 0;  // 0: none fails

void* allocate(std::size_t bytes) noexcept {
  if (bytes >= failing_min_bytes && bytes <= failing_max_bytes) {
    failing_max_bytes = 0;
    return nullptr;
  }
  if (allocations_to_failure != 0 && --allocations_to_failure == 0) return nullptr;
  return std::malloc(bytes == 0 ? 1 : bytes);
}

void* allocateOrThrow(std::size_t bytes) {
  void* memory = allocate(bytes);
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

namespace volorn {

void failNextAllocation(std::size_t min_bytes, std::size_t max_bytes) {
  failing_min_bytes = min_bytes;
  failing_max_bytes = max_bytes;
}

void failAllocationAfter(std::size_t passed) {
  allocations_to_failure = passed + 1;
}

bool allocationHasFailed() {
  return std::exchange(allocations_to_failure, 0) == 0;
}

}  // namespace volorn

void* operator new(std::size_t bytes) {
  return allocateOrThrow(bytes);
}
void* operator new[](std::size_t bytes) {
  return allocateOrThrow(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return allocate(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
