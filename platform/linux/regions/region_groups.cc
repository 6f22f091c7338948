#include "platform/linux/regions/region_groups.h"

#include <algorithm>

#include "platform/shared_library_ranges.h"

namespace volorn::linux_host {
namespace {

// Neither which object is behind them nor how many map it is asked of regions of these modes.
bool mayJoin(ShareMode mode) {
  return mode == ShareMode::private_pages || mode == ShareMode::empty;
}

// False when their pages are too many for one group.
bool join(RegionGroup& group, const ProcessRegion& region) {
  std::uint32_t private_pages = 0;
  std::uint32_t shared_pages = 0;
  if (__builtin_add_overflow(group.info.private_pages_resident, region.info.private_pages_resident,
                             &private_pages) ||
      __builtin_add_overflow(group.info.shared_pages_resident, region.info.shared_pages_resident,
                             &shared_pages)) {
    return false;
  }
  group.info.private_pages_resident = private_pages;
  group.info.shared_pages_resident = shared_pages;
  group.size_bytes += region.size_bytes;
  ++group.regions;
  return true;
}

}  // namespace

void groupRegions(std::span<const ProcessRegion> regions, std::uint32_t cpu_type,
                  std::vector<RegionGroup>& groups) {
  const AddressRange* const libraries = sharedLibraryRangeOf(cpu_type);
  groups.clear();
  for (const ProcessRegion& region : regions) {
    const bool is_library = libraries && libraries->contains(region.address);
    const ShareMode mode = region.info.share_mode;
    if (is_library && mode != ShareMode::private_pages && region.info.private_pages_resident == 0) continue;
    const auto same = std::ranges::find_if(groups, [&](const RegionGroup& group) {
      return mayJoin(mode) && group.info.share_mode == mode && group.is_library == is_library;
    });
    if (same != groups.end() && join(*same, region)) continue;
    groups.push_back(
        {.info = region.info, .size_bytes = region.size_bytes, .regions = 1, .is_library = is_library});
  }
}

}  // namespace volorn::linux_host
