#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace volorn {

// Values by text key, in the order in which the keys came. Which kind a number has is part of what it says: a
// 32-bit 0 and a 64-bit 0 are two values.
class ActivitySummary {
 public:
  using Value = std::variant<std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, double, std::string,
                             ActivitySummary>;
  struct Entry;

  // `capacity_hint`: entries to expect; more may come.
  explicit ActivitySummary(std::size_t capacity_hint = 0);

  // A key that is there already keeps its place and gets the new value.
  void insert(std::string_view key, Value value);

  // Null when the key is absent. Valid until the next insert.
  const Value* find(std::string_view key) const;

  const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::vector<std::uint32_t>::const_iterator placeOf(std::string_view key) const;
  bool isAt(std::vector<std::uint32_t>::const_iterator place, std::string_view key) const;

  std::vector<Entry> entries_;
  std::vector<std::uint32_t> by_key_;  // positions in entries_, sorted by their keys
};

struct ActivitySummary::Entry {
  std::string key;
  Value value;
};

}  // namespace volorn
