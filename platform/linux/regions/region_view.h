#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/regions/mapping.h"
#include "platform/linux/regions/object_ids.h"
#include "platform/linux/regions/process_regions.h"

namespace volorn::linux_host {

// Shows mappings as regions. What is in a mapping decides how it is shown, not of which kind it is:
//
//   anonymous, no page there or swapped       empty
//   no page mapped elsewhere                  private pages
//   any page mapped elsewhere                 copy-on-write by two, with its own pages as private ones
//
// The other share modes are never shown: who adds regions up drops a shared object's private pages.
//
// A mapping of a library is shown by other rules: see ProcessRegions.
class RegionView {
 public:
  explicit RegionView(std::uint64_t page_size_bytes) : page_size_bytes_(page_size_bytes) {}

  // Replaces `regions`; see ProcessRegions::read.
  void show(std::span<const Mapping> mappings, const RegionOwner& owner, RegionWalk walk,
            std::vector<ProcessRegion>& regions);

  // See ProcessRegions.
  void forgetObjectsBut(std::span<const std::uint32_t> kept) { object_ids_.forgetAllBut(kept); }

 private:
  void findLibraries(std::span<const Mapping> mappings, std::uint64_t start_code);
  ProcessRegion regionOf(const Mapping& mapping, const RegionOwner& owner, ShareMode share_mode);

  std::uint64_t page_size_bytes_;
  ObjectIds object_ids_;
  std::vector<FileId> libraries_;  // of the process shown, sorted
};

}  // namespace volorn::linux_host
