#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/kernel_records.h"

namespace volorn::linux_host {

// A stretch of a process's address space, as mach_vm_region and mach_vm_region_recurse tell of it.
//
// A page that n related processes share is among the shared pages of each, and anonymous memory is another
// object in each: sums over processes have it n times.
struct ProcessRegion {
  std::uint64_t
      address;  // where the walker looks for it, which need not be where it lies: see ProcessRegions
  std::uint64_t size_bytes;
  std::uint32_t protection;  // 1 to read, kProtectionWrite, kProtectionExecute
  RegionTopInfo info;        // the object id is 0 where the memory is the process's alone
  std::uint32_t reserved;    // 1: address space put aside, without access and without memory
};

// Who walks the regions, and so which ranges of addresses he takes for those of shared libraries.
enum class RegionWalk {
  of_task,     // mach_vm_region: the range of the processor type
  of_own_task  // mach_vm_region_recurse: the same ranges for every processor
};

// What must be known of a process before its regions are read.
struct RegionOwner {
  std::int32_t pid;
  std::uint64_t start_ticks;   // the 22nd field of `stat`
  std::uint64_t start_code;    // the 26th field of `stat`: an address within the executable
  std::uint32_t cpu_type;      // 0, unknown: of_task has no regions
  std::uint64_t mapped_pages;  // the first two fields of `statm`
  std::uint64_t resident_pages;
};

// Where the pages of a process are counted. Both give the same figures.
enum class RegionSource {
  best,      // the cheaper of the two for the process, of those that the kernel offers
  page_map,  // the mapping query of `maps` and `pagemap`, where the kernel answers both (Linux 6.11)
  smaps
};

// Reads processes' memory regions and hands out the ids of the memory objects behind them. An id stands for
// one object until it is forgotten. For one thread at a time.
//
// Shared libraries (files that are mapped to be executed, but for the executable) are shown one after the
// other from the start of the walker's range for them, as far as they fit: to the walker of a task each of
// their mappings as up to two regions, first its private pages, which are then counted as such, and behind
// them what others have as well. All else is shown where it lies, or 2^60 above that when it lies in a range
// that the walker reads: Linux puts stacks there.
class ProcessRegions {
 public:
  explicit ProcessRegions(RegionSource source = RegionSource::best);
  ~ProcessRegions();
  ProcessRegions(const ProcessRegions&) = delete;
  ProcessRegions& operator=(const ProcessRegions&) = delete;

  // Replaces `regions` by those of the process whose folder of /proc is open as `process_folder`, in the
  // order of their addresses. None for one that has no memory of its own (a kernel thread). False, and none,
  // when they cannot be told: the process is gone, the reader may not see its memory, or its processor type
  // is not known. A vector handed in again saves allocating. Throws std::bad_alloc.
  bool read(int process_folder, const RegionOwner& owner, RegionWalk walk,
            std::vector<ProcessRegion>& regions);

  // Forgets the ids of the memory objects behind regions that nobody holds any more. `kept`: those that are
  // held, in ascending order. No id is handed out twice.
  void forgetObjectsBut(std::span<const std::uint32_t> kept);

 private:
  struct Parts;

  bool readMappings(int process_folder, const RegionOwner& owner);

  RegionSource source_;
  std::unique_ptr<Parts> parts_;
};

}  // namespace volorn::linux_host
