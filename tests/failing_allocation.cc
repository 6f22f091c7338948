#include "tests/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {

std::size_t failing_min_bytes = 1;
std::size_t failing_max_bytes = 0;

void* allocate(std::size_t bytes) noexcept {
  if (bytes >= failing_min_bytes && bytes <= failing_max_bytes) {
    failing_max_bytes = 0;
    return nullptr;
  }
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
