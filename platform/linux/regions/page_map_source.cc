#include "platform/linux/regions/page_map_source.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/kernel_records.h"
#include "platform/linux/file_descriptor.h"
#include "platform/linux/regions/mapping_query.h"

namespace volorn::linux_host {
namespace {

// The bits of a page's entry.
constexpr std::uint64_t kPresent = 1ULL << 63;
constexpr std::uint64_t kSwapped = 1ULL << 62;  // or a mark in place of a page
constexpr std::uint64_t kOfFile = 1ULL << 61;   // or of shared memory; the huge zero page has it, too
constexpr std::uint64_t kGuard = 1ULL << 58;    // the mark of a guard region
constexpr std::uint64_t kPrivate = 1ULL << 56;  // present, and mapped this once

// 64 KiB of entries. A larger piece saves nothing.
constexpr std::size_t kEntriesRead = 8192;
// Reading the entries of as many absent pages takes as long as another call.
constexpr std::uint64_t kGapPages = 128;
// From here on it pays to ask first where the pages are: arenas and thread stacks are mostly holes.
constexpr std::uint64_t kLargePages = 1024;
static_assert(kLargePages <= kEntriesRead, "what is not large is read at once");

Mapping mappingFrom(const MappingQuery& answer, std::uint64_t page_size_bytes) {
  const std::uint64_t flags = answer.mapping_flags;
  Mapping mapping;
  mapping.start = answer.start;
  mapping.end = answer.end;
  mapping.protection = (flags & MappingQuery::kReadable ? kProtectionRead : 0) |
                       (flags & MappingQuery::kWritable ? kProtectionWrite : 0) |
                       (flags & MappingQuery::kExecutable ? kProtectionExecute : 0);
  mapping.is_shared = flags & MappingQuery::kShared;
  mapping.has_huge_pages = answer.page_size_bytes > page_size_bytes;
  mapping.file_offset_bytes = answer.file_offset_bytes;
  mapping.file = {.device = std::uint64_t{answer.device_major} << 32 | answer.device_minor,
                  .inode = answer.inode};
  return mapping;
}

// Returns 0, or the errno that kept the mappings from being told.
int queryMappings(int maps, std::uint64_t page_size_bytes, std::vector<Mapping>& mappings) {
  for (std::uint64_t address = 0;;) {
    MappingQuery query;
    query.query_flags = MappingQuery::kCoveringOrNext;
    query.address = address;
    if (ioctl(maps, kMappingQuery, &query) != 0) return errno == ENOENT ? 0 : errno;
    if (query.end <= address) return EIO;
    mappings.push_back(mappingFrom(query, page_size_bytes));
    address = query.end;
  }
}

}  // namespace

PageMapSource::PageMapSource(std::uint64_t page_size_bytes)
    : page_size_bytes_(page_size_bytes), entries_(kEntriesRead) {}

PageMapSource::Failure PageMapSource::read(int process_folder, std::vector<Mapping>& mappings) {
  const FileDescriptor maps(openat(process_folder, "maps", O_RDONLY | O_CLOEXEC));
  // Descriptors may have run out: the text takes one of them only.
  if (!maps) return {.error = errno, .is_of_process = errno != EMFILE && errno != ENFILE};
  const FileDescriptor page_map(openat(process_folder, "pagemap", O_RDONLY | O_CLOEXEC));
  int error = page_map ? queryMappings(maps.get(), page_size_bytes_, mappings) : errno;
  if (error == 0 && !count(page_map.get(), mappings)) error = errno;
  return {.error = error, .is_of_process = error == ESRCH};
}

bool PageMapSource::isLarge(const Mapping& mapping) const {
  return mapping.end - mapping.start > kLargePages * page_size_bytes_;
}

// How many mappings from the first on lie so near each other that one read serves them.
std::size_t PageMapSource::countNear(std::span<const Mapping> mappings) const {
  std::size_t count = 1;
  for (; count < mappings.size(); ++count) {
    const Mapping& next = mappings[count];
    if (next.has_huge_pages || isLarge(next)) break;
    if (next.start - mappings[count - 1].end > kGapPages * page_size_bytes_) break;
    if (next.end - mappings[0].start > kEntriesRead * page_size_bytes_) break;
  }
  return count;
}

bool PageMapSource::count(int page_map, std::span<Mapping> mappings) {
  while (!mappings.empty()) {
    std::size_t counted = 1;
    if (isLarge(mappings[0]) && !mappings[0].has_huge_pages) {
      if (!countPresent(page_map, mappings[0])) return false;
    } else if (!mappings[0].has_huge_pages) {
      counted = countNear(mappings);
      if (!countTogether(page_map, mappings.first(counted))) return false;
    }
    mappings = mappings.subspan(counted);
  }
  return true;
}

bool PageMapSource::countTogether(int page_map, std::span<Mapping> mappings) {
  const std::uint64_t start = mappings.front().start;
  if (!readEntries(page_map, start, mappings.back().end)) return false;
  const std::span<const std::uint64_t> entries = entries_;
  for (Mapping& mapping : mappings) {
    has_doubtful_pages_ = false;
    tally(entries.subspan(pagesIn(start, mapping.start), pagesIn(mapping.start, mapping.end)), mapping);
    if (has_doubtful_pages_ && !takeOutZeroPages(page_map, mapping)) return false;
  }
  return true;
}

bool PageMapSource::countPresent(int page_map, Mapping& mapping) {
  has_doubtful_pages_ = false;
  std::uint64_t start = mapping.start;
  std::uint64_t end = start;
  const auto take = [&](std::uint64_t run_start, std::uint64_t run_end) {
    if (run_start - end > kGapPages * page_size_bytes_) {
      if (!countRange(page_map, start, end, mapping)) return false;
      start = run_start;
    }
    end = run_end;
    return true;
  };
  if (!scan_.forEachRun(page_map, mapping.start, mapping.end, PageScan::Kind::present_or_swapped, take)) {
    return false;
  }
  if (!countRange(page_map, start, end, mapping)) return false;
  return !has_doubtful_pages_ || takeOutZeroPages(page_map, mapping);
}

bool PageMapSource::countRange(int page_map, std::uint64_t start, std::uint64_t end, Mapping& mapping) {
  while (start < end) {
    const std::uint64_t piece_end = std::min(end, start + kEntriesRead * page_size_bytes_);
    if (!readEntries(page_map, start, piece_end)) return false;
    tally(std::span(entries_).first(pagesIn(start, piece_end)), mapping);
    start = piece_end;
  }
  return true;
}

std::size_t PageMapSource::pagesIn(std::uint64_t start, std::uint64_t end) const {
  return static_cast<std::size_t>((end - start) / page_size_bytes_);
}

// At most kEntriesRead of them.
bool PageMapSource::readEntries(int page_map, std::uint64_t start, std::uint64_t end) {
  const std::size_t bytes = pagesIn(start, end) * sizeof entries_[0];
  const auto offset = static_cast<off_t>(start / page_size_bytes_ * sizeof entries_[0]);
  const ssize_t count = pread(page_map, entries_.data(), bytes, offset);
  if (count >= 0 && count != static_cast<ssize_t>(bytes)) errno = ESRCH;  // its memory has gone
  return count == static_cast<ssize_t>(bytes);
}

void PageMapSource::tally(std::span<const std::uint64_t> entries, Mapping& mapping) {
  const bool is_anonymous = mapping.isAnonymous();
  for (const std::uint64_t entry : entries) {
    if (!(entry & kPresent)) {
      if ((entry & (kSwapped | kGuard)) == kSwapped) mapping.is_swapped = true;
      continue;
    }
    // A device's memory has no pages of the kernel's.
    if (mapping.is_shared && !(entry & kOfFile)) continue;
    if (entry & kPrivate) {
      ++mapping.private_pages;
    } else {
      ++mapping.shared_pages;
      if (is_anonymous || !(entry & kOfFile)) has_doubtful_pages_ = true;
    }
  }
  // A private mapping of /dev/zero looks like one of a file. The huge zero page has as many entries as fit in
  // a page.
  const bool is_large_file = !mapping.is_shared && mapping.shared_pages >= page_size_bytes_ / sizeof(kOfFile);
  if (is_large_file) has_doubtful_pages_ = true;
}

bool PageMapSource::takeOutZeroPages(int page_map, Mapping& mapping) {
  std::uint64_t bytes = 0;
  const auto take = [&](std::uint64_t start, std::uint64_t end) {
    bytes += end - start;
    return true;
  };
  const auto kind = PageScan::Kind::present_but_zero_pages;
  if (!scan_.forEachRun(page_map, mapping.start, mapping.end, kind, take)) return false;
  const std::uint64_t pages = bytes / page_size_bytes_;
  mapping.shared_pages = pages - std::min(pages, mapping.private_pages);
  return true;
}

}  // namespace volorn::linux_host
