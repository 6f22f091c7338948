#include "platform/linux/kernel/parse_elf.h"

#include <algorithm>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  const auto header = parseElfHeader(text.substr(0, ElfHeader::kMostBytes));
  if (header) parseElfSegment(text.substr(std::min<std::size_t>(size, header->segments_offset)), *header);
  for (const bool is_swapped : {false, true}) {
    for (const std::uint64_t alignment : {4U, 8U}) {
      const ElfSegment segment = {.is_notes = true, .offset = 0, .size_bytes = size, .alignment = alignment};
      ElfHeader file;
      file.is_swapped = is_swapped;
      const auto id = findBuildId(text, segment, file);
      require(!id || text.find("GNU") != text.npos);
    }
  }
  return 0;
}
