#include "libtop/shared_objects.h"

namespace volorn {
namespace {

std::int32_t wrappingSum(std::int32_t sum, std::uint64_t size_bytes) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(sum) + static_cast<std::uint32_t>(size_bytes));
}

// Finds or makes the region's object, makes `owner` its owner and takes back what it has added to the owner's
// sums.
SharedObject& claim(SharedObjects& objects, const ProcessInfo& owner, const RegionTopInfo& region,
                    std::uint64_t size_bytes, RegionSums& sums) {
  const auto [place, is_new] = objects.try_emplace(region.object_id);
  SharedObject& object = place->second;
  object.size_sum = wrappingSum(object.size_sum, size_bytes);
  if (is_new) {
    object.object_id = region.object_id;
    object.share_mode = region.share_mode;
    object.resident_pages = static_cast<std::int32_t>(region.shared_pages_resident);
    object.ref_count = region.ref_count;
  }
  if (object.owner != &owner) {
    object.owner = &owner;
    object.seen = 1;
    return object;
  }
  ++object.seen;
  if (object.counted_as != kCountedShared) object.share_mode = static_cast<ShareMode>(object.counted_as);
  sums.object_private_resident -= object.private_resident;
  sums.shared_resident -= object.shared_resident;
  sums.private_virtual -= object.private_virtual;
  return object;
}

}  // namespace

void countSharedObject(SharedObjects& objects, const ProcessInfo& owner, const RegionTopInfo& region,
                       std::uint64_t size_bytes, std::uint64_t page_size_bytes, RegionSums& sums) {
  SharedObject& object = claim(objects, owner, region, size_bytes, sums);
  object.counted_as = kCountedShared;
  object.private_resident = 0;
  object.private_virtual = 0;
  object.shared_resident = 0;
  // What an earlier process had for itself alone counts for nothing in another.
  if (object.share_mode == ShareMode::private_aliased) return;
  const std::uint64_t resident = static_cast<std::uint64_t>(object.resident_pages) * page_size_bytes;
  if (object.share_mode == ShareMode::shared && object.ref_count == object.seen) {
    object.counted_as = kCountedPrivate;
    object.share_mode = ShareMode::private_aliased;
    object.private_resident = resident;
    object.private_virtual = static_cast<std::uint64_t>(object.size_sum);
    sums.object_private_resident += object.private_resident;
    sums.private_virtual += object.private_virtual;
  } else {
    object.shared_resident = resident;
    sums.shared_resident += object.shared_resident;
  }
  if (region.share_mode == ShareMode::copy_on_write) {
    const std::uint64_t own = region.private_pages_resident * page_size_bytes;
    sums.private_resident += own;
    sums.private_virtual += own;
  }
}

}  // namespace volorn
