#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>

namespace volorn::linux_host {

// What makes a memory object: a file from a page on, or an anonymous stretch of a process.
struct MemoryObject {
  std::uint64_t device_or_owner;  // for an anonymous stretch the pid, the top bit set, which no device has
  std::uint64_t inode_or_start_ticks;
  std::uint64_t page_offset_or_address;

  bool operator==(const MemoryObject&) const = default;
};

struct MemoryObjectHash {
  std::size_t operator()(const MemoryObject& object) const {
    std::uint64_t hash = 0;
    for (const std::uint64_t part :
         {object.device_or_owner, object.inode_or_start_ticks, object.page_offset_or_address}) {
      hash = (hash ^ part) * 0x9E3779B97F4A7C15;
      hash ^= hash >> 32;
    }
    return static_cast<std::size_t>(hash);
  }
};

// Ids of memory objects, from 1 on in the order of asking. An object keeps its id until it is forgotten.
class ObjectIds {
 public:
  std::uint32_t idOf(const MemoryObject& object) {
    const auto [place, is_new] = ids_.try_emplace(object, next_);
    if (is_new) ++next_;
    return place->second;
  }

  // `kept`: ids in ascending order.
  void forgetAllBut(std::span<const std::uint32_t> kept) {
    std::erase_if(ids_, [&](const auto& entry) { return !std::ranges::binary_search(kept, entry.second); });
  }

 private:
  std::uint32_t next_ = 1;
  std::unordered_map<MemoryObject, std::uint32_t, MemoryObjectHash> ids_;
};

}  // namespace volorn::linux_host
