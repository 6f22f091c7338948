#pragma once

#include <cstdint>
#include <unordered_map>

#include "libtop/process_info.h"
#include "platform/kernel_records.h"

namespace volorn {

enum CountedAs : std::uint32_t { kCountedShared = 3, kCountedPrivate = 4 };

// A memory object that processes share. `resident_pages` and `ref_count` are those of the region that was met
// first.
struct SharedObject {
  const ProcessInfo* owner;  // the process that mapped it last, perhaps gone: only compared
  std::uint32_t object_id;
  std::int32_t size_sum;  // bytes of the regions that mapped it; wraps
  ShareMode share_mode;
  std::int32_t resident_pages;
  std::uint32_t ref_count;
  std::uint32_t seen;              // regions of the owner that mapped it
  std::uint32_t counted_as;        // CountedAs
  std::uint64_t private_resident;  // bytes of its owner's sums that are this object's, as the next two
  std::uint64_t private_virtual;
  std::uint64_t shared_resident;
};

// By object id. An entry stays until the sampler ends.
using SharedObjects = std::unordered_map<std::uint32_t, SharedObject>;

// What a walk over a process's regions adds up: bytes, which wrap below 0 and back.
struct RegionSums {
  std::uint64_t private_resident = 0;
  std::uint64_t private_virtual = 0;
  std::uint64_t shared_resident = 0;
  std::uint64_t object_private_resident = 0;  // of shared objects that are one process's alone
  std::uint64_t empty_virtual = 0;
  std::uint64_t shlib_private = 0;
  std::uint32_t regions = 0;
};

// Counts a region of `owner` that maps a shared object: an object counts once for an owner, as shared until
// every reference to it turns out to be the owner's. Throws std::bad_alloc.
void countSharedObject(SharedObjects& objects, const ProcessInfo& owner, const RegionTopInfo& region,
                       std::uint64_t size_bytes, std::uint64_t page_size_bytes, RegionSums& sums);

}  // namespace volorn
