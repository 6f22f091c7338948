#include <cstdio>
#include <cstdlib>
#include <new>

#include "libtop/assertion.h"
#include "libtop/sampler.h"
#include "platform/shared_library_ranges.h"

namespace volorn {
namespace {

// Processes of this type are not walked again, whatever was found in their range.
constexpr std::uint32_t kTypeWithoutSplitWalks = 0x100000C;

struct Region {
  std::uint64_t address = 0;
  std::uint64_t size_bytes = 0;
  RegionTopInfo info = {};
};

bool isInSharedLibraries(const Region& region, std::uint32_t cpu_type) {
  const AddressRange* range = sharedLibraryRangeOf(cpu_type);
  if (!range) {
    std::fprintf(stderr, "unknown CPU type: 0x%x\n", cpu_type);
    std::abort();
  }
  return range->contains(region.address);
}

// False when the kernel does not tell whether an empty region is address space put aside.
bool lookForSplit(PortName task, const Region& region, ProcessInfo& pinfo) {
  if (pinfo.split || region.info.share_mode != ShareMode::empty) return true;
  Region probed = region;
  RegionBasicInfo basic = {};
  Kernel& kernel = theKernel();
  if (kernel.mach_vm_region(task, probed.address, probed.size_bytes, basic) != kKernelSuccess) return false;
  if (basic.reserved) pinfo.split = 1;
  return true;
}

// Those among the shared libraries count where they are private, and are told apart as well.
void countRegions(const ProcessInfo& pinfo, const RegionGroup& group, RegionSums& sums) {
  RegionTopInfo info = group.info;
  const std::uint64_t page_size_bytes = sampler.tsamp.page_size;
  const std::uint64_t private_bytes = info.private_pages_resident * page_size_bytes;
  const bool is_kernel = pinfo.psamp.pid == 0;
  if (group.is_library) {
    sums.shlib_private += private_bytes;
    if (info.share_mode != ShareMode::private_pages) return;
  }
  if (info.share_mode == ShareMode::copy_on_write && info.ref_count == 1) {
    info.share_mode = ShareMode::private_pages;
  }
  sums.regions += group.regions;
  switch (info.share_mode) {
    case ShareMode::private_pages:
    case ShareMode::large_page:
      sums.private_resident += private_bytes + info.shared_pages_resident * page_size_bytes;
      sums.private_virtual += group.size_bytes;
      break;
    case ShareMode::empty:
      sums.empty_virtual += group.size_bytes;
      break;
    case ShareMode::copy_on_write:
    case ShareMode::shared:
      if (!is_kernel) {
        countSharedObject(sampler.shared_objects, pinfo, info, group.size_bytes, page_size_bytes, sums);
      } else if (info.share_mode == ShareMode::copy_on_write) {
        sums.private_resident += private_bytes;
        sums.private_virtual += group.size_bytes;
      }
      break;
    default:
      assertionFailed("libtop_update_vm_regions", 1795, "0");
  }
}

RegionSums walkRegions(PortName task, ProcessInfo& pinfo) {
  Kernel& kernel = theKernel();
  RegionSums sums;
  std::span<const RegionGroup> groups;
  if (kernel.regionGroups(task, groups)) {
    for (const RegionGroup& group : groups) countRegions(pinfo, group, sums);
    return sums;
  }
  Region region;
  while (kernel.mach_vm_region(task, region.address, region.size_bytes, region.info) == kKernelSuccess) {
    const bool is_library = isInSharedLibraries(region, pinfo.psamp.cpu_type);
    const bool is_told = !is_library || lookForSplit(task, region, pinfo);
    const RegionGroup alone = {
        .info = region.info, .size_bytes = region.size_bytes, .regions = 1, .is_library = is_library};
    countRegions(pinfo, alone, sums);
    if (!is_told) break;
    const std::uint64_t next = region.address + region.size_bytes;
    if (next <= region.address) break;
    region.address = next;
  }
  return sums;
}

}  // namespace

std::uint64_t splitWalkLimitBytes(std::uint32_t cpu_type) {
  const AddressRange* range = sharedLibraryRangeOf(cpu_type);
  return range && cpu_type != kTypeWithoutSplitWalks ? range->size_bytes : 0;
}

void libtop_update_vm_regions(PortName task, ProcessInfo& pinfo) try {
  pinfo.split = 0;
  const RegionSums sums = walkRegions(task, pinfo);
  ProcessSample& psamp = pinfo.psamp;
  psamp.private_virtual = sums.private_virtual;
  psamp.shared_resident = sums.shared_resident;
  psamp.empty_virtual = sums.empty_virtual;
  psamp.private_resident = sums.private_resident + sums.object_private_resident;
  psamp.shlib_private = sums.shlib_private;
  psamp.region_count_prev = sampler.tsamp.seq < 2 ? 0 : psamp.region_count;
  psamp.region_count = sums.regions;
} catch (const std::bad_alloc&) {
  // The sizes of the walk before stand.
}

}  // namespace volorn
