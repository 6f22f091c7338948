#include "platform/linux/kernel/executable.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

namespace volorn::linux_host {
namespace {

// Far more than any linker makes.
constexpr std::uint16_t kMostSegments = 256;
constexpr std::uint64_t kMostNoteBytes = 65536;

// As many bytes as the file has there, none when it cannot be read.
std::string_view readAt(int file, std::uint64_t offset, std::span<char> buffer) {
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return {};
  ssize_t count = 0;
  do {
    count = pread(file, buffer.data(), buffer.size(), static_cast<off_t>(offset));
  } while (count < 0 && errno == EINTR);
  return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

std::optional<ElfHeader> readHeader(int file) {
  std::array<char, ElfHeader::kMostBytes> bytes = {};
  return parseElfHeader(readAt(file, 0, bytes));
}

}  // namespace

std::optional<BuildId> readBuildId(int file) {
  const std::optional<ElfHeader> header = readHeader(file);
  if (!header || header->segment_count > kMostSegments) return std::nullopt;
  for (std::uint64_t i = 0; i < header->segment_count; ++i) {
    std::array<char, ElfSegment::kMostBytes> bytes = {};
    const std::uint64_t offset = header->segments_offset + i * header->segment_entry_bytes;
    const auto segment = parseElfSegment(readAt(file, offset, bytes), *header);
    if (!segment) return std::nullopt;
    if (!segment->is_notes || segment->size_bytes > kMostNoteBytes) continue;
    std::vector<char> notes(static_cast<std::size_t>(segment->size_bytes));
    const auto id = findBuildId(readAt(file, segment->offset, notes), *segment, *header);
    if (id) return id;
  }
  return std::nullopt;
}

}  // namespace volorn::linux_host
