#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/regions/process_regions.h"

namespace volorn::linux_host {

inline RegionOwner ownerWith(std::uint32_t cpu_type, std::uint64_t mapped_pages = 1,
                             std::uint64_t resident_pages = 1) {
  return {7, 70, 0x400000, cpu_type, mapped_pages, resident_pages};
}

// Address+bytes, share mode, reference count, private+shared pages.
inline std::string describe(const std::vector<ProcessRegion>& regions) {
  std::ostringstream text;
  text << std::hex;
  for (const ProcessRegion& region : regions) {
    const RegionTopInfo& info = region.info;
    text << region.address << '+' << region.size_bytes << " mode "
         << static_cast<std::uint32_t>(info.share_mode) << " of " << info.ref_count << ", "
         << info.private_pages_resident << '+' << info.shared_pages_resident
         << (region.reserved ? " reserved\n" : "\n");
  }
  return text.str();
}

}  // namespace volorn::linux_host
