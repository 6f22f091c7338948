#pragma once

#include <algorithm>
#include <string_view>
#include <vector>

namespace volorn::linux_host {

// The snapshot keys whose values stand in for a reading that was not had in this run: no such device, an
// error, a query that wrote nothing. The bindings of the readings tell it by key at each query, and the
// metric store's binding asks before it stores the key's value.
class StandIns {
 public:
  // The newest query decides. Keys are the constants of platform/snapshot_keys.h, which outlive this.
  void note(std::string_view key, bool reading_was_had) {
    std::erase(keys_, key);
    if (!reading_was_had) keys_.push_back(key);
  }

  // False for a key that no query has told of.
  bool contains(std::string_view key) const { return std::ranges::find(keys_, key) != keys_.end(); }

 private:
  std::vector<std::string_view> keys_;
};

}  // namespace volorn::linux_host
