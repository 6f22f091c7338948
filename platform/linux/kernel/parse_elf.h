#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// The head of an executable file.
struct ElfHeader {
  static constexpr std::size_t kMostBytes = 64;

  bool is_64_bit = false;
  bool is_swapped = false;  // its numbers are not in this processor's byte order
  std::uint64_t segments_offset = 0;
  std::uint16_t segment_entry_bytes = 0;
  std::uint16_t segment_count = 0;
};

struct ElfSegment {
  static constexpr std::size_t kMostBytes = 56;

  bool is_notes = false;
  std::uint64_t offset = 0;
  std::uint64_t size_bytes = 0;
  std::uint64_t alignment = 0;
};

// The first 64 bytes of a file (52 do for a 32-bit one). None for what is no ELF file.
std::optional<ElfHeader> parseElfHeader(std::string_view bytes);

// An entry of the table at `segments_offset`; none when there are too few bytes of it.
std::optional<ElfSegment> parseElfSegment(std::string_view bytes, const ElfHeader& header);

// The first 16 bytes of the identifier that the linker left in a file, zeros behind a shorter one.
using BuildId = std::array<std::uint8_t, 16>;

// The identifier in the notes of a segment: a note of type 3 whose owner is "GNU". None where there is none.
std::optional<BuildId> findBuildId(std::string_view notes, const ElfSegment& segment,
                                   const ElfHeader& header);

}  // namespace volorn::linux_host
