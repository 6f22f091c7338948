#include "libtop/sampler.h"
#include "platform/shared_library_ranges.h"

namespace volorn {
namespace {

bool countsResident(ShareMode mode) {
  return mode == ShareMode::copy_on_write || mode == ShareMode::shared || mode == ShareMode::true_shared;
}

void addRange(AddressRange range) {
  Kernel& kernel = theKernel();
  SystemSample& tsamp = sampler.tsamp;
  const std::uint64_t page_size_bytes = tsamp.page_size;
  std::uint64_t address = range.start;
  while (address < range.end()) {
    std::uint64_t size_bytes = 0;
    std::uint32_t depth = 1;
    SubmapInfo64 info = {};
    const PortName own_task = kernel.mach_task_self();
    if (kernel.mach_vm_region_recurse(own_task, address, size_bytes, depth, info) != kKernelSuccess) break;
    if (address >= range.end() || address + size_bytes <= address) break;
    address += size_bytes;
    tsamp.shlib_virtual += size_bytes;
    if (!countsResident(info.share_mode)) continue;
    const std::uint64_t resident = info.pages_resident * page_size_bytes;
    if (info.protection & kProtectionExecute) {
      tsamp.shlib_code += resident;
      ++tsamp.shlib_code_regions;
    } else if (info.protection & kProtectionWrite) {
      tsamp.shlib_data += resident;
    } else {
      tsamp.shlib_readonly += resident;
    }
  }
}

}  // namespace

void sumSharedLibraries() {
  SystemSample& tsamp = sampler.tsamp;
  tsamp.shlib_virtual = 0;
  tsamp.shlib_code_regions = 0;
  tsamp.shlib_code = 0;
  tsamp.shlib_data = 0;
  tsamp.shlib_readonly = 0;
  tsamp.shlib_private_total = 0;
  for (const AddressRange& range : kOwnSharedLibraryRanges) addRange(range);
  while (const ProcessInfo* pinfo = libtop_piterate()) {
    tsamp.shlib_private_total += pinfo->psamp.shlib_private;
  }
}

}  // namespace volorn
