#include "platform/linux/regions/region_view.h"

#include <algorithm>

#include "platform/shared_library_ranges.h"

namespace volorn::linux_host {
namespace {

// Farther than any process's addresses reach.
constexpr std::uint64_t kOutOfTheWayBytes = std::uint64_t{1} << 60;

constexpr std::uint64_t kAnonymousOwner = std::uint64_t{1} << 63;

// The ranges that the walker reads; none for a type unknown to him. The libraries are shown in the last.
std::span<const AddressRange> rangesOf(RegionWalk walk, std::uint32_t cpu_type) {
  if (walk == RegionWalk::of_own_task) return kOwnSharedLibraryRanges;
  const AddressRange* const range = sharedLibraryRangeOf(cpu_type);
  if (!range) return {};
  return {range, 1};
}

bool overlapsAny(const Mapping& mapping, std::span<const AddressRange> ranges) {
  return std::ranges::any_of(ranges, [&](const AddressRange& range) {
    return mapping.start < range.end() && mapping.end > range.start;
  });
}

ShareMode shareModeOf(const Mapping& mapping) {
  if (mapping.shared_pages != 0) return ShareMode::copy_on_write;
  const bool holds_nothing = mapping.private_pages == 0 && !mapping.is_swapped;
  return mapping.isAnonymous() && holds_nothing ? ShareMode::empty : ShareMode::private_pages;
}

// Parts a region: its private pages come first, `region` becomes the rest, perhaps of size 0.
ProcessRegion takePrivatePages(ProcessRegion& region, std::uint64_t page_size_bytes) {
  ProcessRegion own = region;
  own.size_bytes = std::min(region.size_bytes, region.info.private_pages_resident * page_size_bytes);
  own.info.share_mode = ShareMode::private_pages;
  own.info.object_id = 0;
  own.info.ref_count = 1;
  own.info.shared_pages_resident = 0;
  region.address += own.size_bytes;
  region.size_bytes -= own.size_bytes;
  region.info.private_pages_resident = 0;
  return own;
}

}  // namespace

void RegionView::findLibraries(std::span<const Mapping> mappings, std::uint64_t start_code) {
  FileId executable;
  libraries_.clear();
  for (const Mapping& mapping : mappings) {
    if (mapping.start <= start_code && start_code < mapping.end) executable = mapping.file;
    const bool is_executed = mapping.protection & kProtectionExecute;
    if (is_executed && !mapping.isAnonymous()) libraries_.push_back(mapping.file);
  }
  std::erase(libraries_, executable);
  std::sort(libraries_.begin(), libraries_.end());
}

ProcessRegion RegionView::regionOf(const Mapping& mapping, const RegionOwner& owner, ShareMode share_mode) {
  ProcessRegion region = {};
  region.address = mapping.start;
  region.size_bytes = mapping.end - mapping.start;
  region.protection = mapping.protection;
  RegionTopInfo& info = region.info;
  info.share_mode = share_mode;
  info.ref_count = info.share_mode == ShareMode::copy_on_write ? 2 : 1;
  info.private_pages_resident = static_cast<std::uint32_t>(mapping.private_pages);
  info.shared_pages_resident = static_cast<std::uint32_t>(mapping.shared_pages);
  region.reserved = info.share_mode == ShareMode::empty && mapping.protection == 0;
  if (info.share_mode == ShareMode::copy_on_write) {
    const auto pid = static_cast<std::uint32_t>(owner.pid);
    info.object_id = object_ids_.idOf(
        mapping.isAnonymous() ? MemoryObject{kAnonymousOwner | pid, owner.start_ticks, mapping.start}
                              : MemoryObject{mapping.file.device, mapping.file.inode,
                                             mapping.file_offset_bytes / page_size_bytes_});
  }
  return region;
}

void RegionView::show(std::span<const Mapping> mappings, const RegionOwner& owner, RegionWalk walk,
                      std::vector<ProcessRegion>& regions) {
  regions.clear();
  const std::span<const AddressRange> ranges = rangesOf(walk, owner.cpu_type);
  if (ranges.empty()) return;
  findLibraries(mappings, owner.start_code);
  std::uint64_t next_library = ranges.back().start;
  for (const Mapping& mapping : mappings) {
    const bool is_library = std::binary_search(libraries_.begin(), libraries_.end(), mapping.file) &&
                            mapping.end - mapping.start <= ranges.back().end() - next_library;
    if (!is_library) {
      ProcessRegion& region = regions.emplace_back(regionOf(mapping, owner, shareModeOf(mapping)));
      if (overlapsAny(mapping, ranges)) region.address += kOutOfTheWayBytes;
      continue;
    }
    ProcessRegion region = regionOf(mapping, owner, ShareMode::copy_on_write);
    region.address = next_library;
    next_library += region.size_bytes;
    if (walk == RegionWalk::of_task && region.info.private_pages_resident != 0) {
      regions.push_back(takePrivatePages(region, page_size_bytes_));
    }
    if (region.size_bytes != 0) regions.push_back(region);
  }
  std::ranges::sort(regions, {}, &ProcessRegion::address);
}

}  // namespace volorn::linux_host
