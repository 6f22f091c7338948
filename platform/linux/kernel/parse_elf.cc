#include "platform/linux/kernel/parse_elf.h"

#include <elf.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace volorn::linux_host {
namespace {

static_assert(sizeof(Elf64_Ehdr) == ElfHeader::kMostBytes && sizeof(Elf64_Phdr) == ElfSegment::kMostBytes);
static_assert(sizeof(Elf32_Nhdr) == sizeof(Elf64_Nhdr));

template <typename Record>
std::optional<Record> recordAt(std::string_view bytes) {
  if (bytes.size() < sizeof(Record)) return std::nullopt;
  Record record = {};
  std::memcpy(&record, bytes.data(), sizeof(record));
  return record;
}

template <typename Number>
Number inOwnOrder(Number number, bool is_swapped) {
  if (!is_swapped) return number;
  auto bytes = std::bit_cast<std::array<char, sizeof(Number)>>(number);
  std::ranges::reverse(bytes);
  return std::bit_cast<Number>(bytes);
}

template <typename FileHeader>
std::optional<ElfHeader> headerFrom(std::string_view bytes, ElfHeader header) {
  const auto file = recordAt<FileHeader>(bytes);
  if (!file) return std::nullopt;
  header.segments_offset = inOwnOrder(file->e_phoff, header.is_swapped);
  header.segment_entry_bytes = inOwnOrder(file->e_phentsize, header.is_swapped);
  header.segment_count = inOwnOrder(file->e_phnum, header.is_swapped);
  return header;
}

template <typename FileSegment>
std::optional<ElfSegment> segmentFrom(std::string_view bytes, bool is_swapped) {
  const auto file = recordAt<FileSegment>(bytes);
  if (!file) return std::nullopt;
  return ElfSegment{.is_notes = inOwnOrder(file->p_type, is_swapped) == PT_NOTE,
                    .offset = inOwnOrder(file->p_offset, is_swapped),
                    .size_bytes = inOwnOrder(file->p_filesz, is_swapped),
                    .alignment = inOwnOrder(file->p_align, is_swapped)};
}

}  // namespace

std::optional<ElfHeader> parseElfHeader(std::string_view bytes) {
  if (bytes.size() < EI_NIDENT || !bytes.starts_with(ELFMAG)) return std::nullopt;
  constexpr char kOwnOrder = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;
  const char order = bytes[EI_DATA];
  if (order != ELFDATA2LSB && order != ELFDATA2MSB) return std::nullopt;
  ElfHeader header;
  header.is_swapped = order != kOwnOrder;
  header.is_64_bit = bytes[EI_CLASS] == ELFCLASS64;
  if (header.is_64_bit) return headerFrom<Elf64_Ehdr>(bytes, header);
  return bytes[EI_CLASS] == ELFCLASS32 ? headerFrom<Elf32_Ehdr>(bytes, header) : std::nullopt;
}

std::optional<ElfSegment> parseElfSegment(std::string_view bytes, const ElfHeader& header) {
  return header.is_64_bit ? segmentFrom<Elf64_Phdr>(bytes, header.is_swapped)
                          : segmentFrom<Elf32_Phdr>(bytes, header.is_swapped);
}

std::optional<BuildId> findBuildId(std::string_view notes, const ElfSegment& segment,
                                   const ElfHeader& header) {
  using namespace std::string_view_literals;
  // Names and contents are padded to 4 bytes, in segments aligned to 8 to 8.
  const std::uint64_t alignment = segment.alignment == 8 ? 8 : 4;
  const auto padded = [&](std::uint64_t size) { return (size + alignment - 1) / alignment * alignment; };
  while (const auto note = recordAt<Elf64_Nhdr>(notes)) {
    const std::uint64_t name_size = inOwnOrder(note->n_namesz, header.is_swapped);
    const std::uint64_t content_size = inOwnOrder(note->n_descsz, header.is_swapped);
    const std::uint64_t content_at = padded(sizeof(*note) + name_size);
    if (content_at > notes.size() || content_size > notes.size() - content_at) break;
    const bool is_build_id = inOwnOrder(note->n_type, header.is_swapped) == NT_GNU_BUILD_ID &&
                             notes.substr(sizeof(*note), static_cast<std::size_t>(name_size)) == "GNU\0"sv;
    if (is_build_id && content_size > 0) {
      BuildId id = {};
      const auto content = notes.substr(static_cast<std::size_t>(content_at));
      std::memcpy(id.data(), content.data(),
                  static_cast<std::size_t>(std::min<std::uint64_t>(id.size(), content_size)));
      return id;
    }
    notes.remove_prefix(
        static_cast<std::size_t>(std::min<std::uint64_t>(notes.size(), padded(content_at + content_size))));
  }
  return std::nullopt;
}

}  // namespace volorn::linux_host
