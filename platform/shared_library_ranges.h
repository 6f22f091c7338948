#pragma once

#include <array>
#include <cstdint>

namespace volorn {

struct AddressRange {
  std::uint64_t start;
  std::uint64_t size_bytes;

  constexpr std::uint64_t end() const { return start + size_bytes; }
  constexpr bool contains(std::uint64_t address) const { return address >= start && address < end(); }
};

struct SharedLibraryRange {
  std::uint32_t cpu_type;
  AddressRange range;
};

// Where the sampler looks for shared libraries in a task of a processor type.
inline constexpr std::array<SharedLibraryRange, 6> kSharedLibraryRanges = {{
    {7, {0x90000000, 0x20000000}},
    {12, {0x2C000000, 0x14000000}},
    {18, {0x90000000, 0x20000000}},
    {0x1000007, {0x7FFF70000000, 0x8FE00000}},
    {0x1000012, {0x7FFF60000000, 0xA0000000}},
    {0x100000C, {0x180000000, 0x20000000}},
}};

// And in its own task, whatever the processor.
inline constexpr std::array<AddressRange, 2> kOwnSharedLibraryRanges = {{
    {0x90000000, 0x20000000},
    {0x7FFF60000000, 0xA0000000},
}};

// Null for a type that is none of these.
constexpr const AddressRange* sharedLibraryRangeOf(std::uint32_t cpu_type) {
  for (const SharedLibraryRange& row : kSharedLibraryRanges) {
    if (row.cpu_type == cpu_type) return &row.range;
  }
  return nullptr;
}

}  // namespace volorn
