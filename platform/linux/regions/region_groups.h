#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/kernel_records.h"
#include "platform/linux/regions/process_regions.h"

namespace volorn::linux_host {

// Replaces `groups` by what Kernel::regionGroups tells of a task's regions, read for RegionWalk::of_task. Of
// fifty regions, forty bytes each, a dozen groups are left.
void groupRegions(std::span<const ProcessRegion> regions, std::uint32_t cpu_type,
                  std::vector<RegionGroup>& groups);

}  // namespace volorn::linux_host
