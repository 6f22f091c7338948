#include "snapshot/activity_summary.h"

#include <algorithm>
#include <utility>

namespace volorn {

ActivitySummary::ActivitySummary(std::size_t capacity_hint) {
  entries_.reserve(capacity_hint);
  by_key_.reserve(capacity_hint);
}

void ActivitySummary::insert(std::string_view key, Value value) {
  const auto place = placeOf(key);
  if (isAt(place, key)) {
    entries_[*place].value = std::move(value);
    return;
  }
  const auto position = static_cast<std::uint32_t>(entries_.size());
  entries_.push_back({std::string(key), std::move(value)});
  by_key_.insert(place, position);
}

const ActivitySummary::Value* ActivitySummary::find(std::string_view key) const {
  const auto place = placeOf(key);
  return isAt(place, key) ? &entries_[*place].value : nullptr;
}

std::vector<std::uint32_t>::const_iterator ActivitySummary::placeOf(std::string_view key) const {
  return std::ranges::lower_bound(
      by_key_, key, {}, [this](std::uint32_t position) { return std::string_view(entries_[position].key); });
}

bool ActivitySummary::isAt(std::vector<std::uint32_t>::const_iterator place, std::string_view key) const {
  return place != by_key_.end() && entries_[*place].key == key;
}

}  // namespace volorn
