#include "platform/device_registry.h"

#include <algorithm>
#include <utility>

namespace volorn {

PropertyTable::PropertyTable(std::initializer_list<Entry> entries) : entries_(entries) {}

void PropertyTable::set(std::string_view key, PropertyValue value) {
  const auto found = std::ranges::find(entries_, key, &Entry::key);
  if (found != entries_.end()) {
    found->value = std::move(value);
  } else {
    entries_.push_back({std::string(key), std::move(value)});
  }
}

const PropertyValue* PropertyTable::find(std::string_view key) const {
  for (const Entry& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

const PropertyTable* PropertyTable::table(std::string_view key) const {
  const PropertyValue* entry = find(key);
  return entry ? std::get_if<PropertyTable>(&entry->value) : nullptr;
}

std::int64_t PropertyTable::integer(std::string_view key) const {
  const PropertyValue* entry = find(key);
  return entry ? entry->asInteger().value_or(0) : 0;
}

bool PropertyTable::hasAll(const PropertyTable& wanted) const {
  return std::ranges::all_of(wanted.entries_, [this](const Entry& entry) {
    const PropertyValue* own = find(entry.key);
    return own && *own == entry.value;
  });
}

bool PropertyTable::operator==(const PropertyTable& other) const {
  return hasAll(other) && other.hasAll(*this);
}

std::optional<double> PropertyValue::asDouble() const {
  if (const auto* number = std::get_if<std::int64_t>(&value)) return static_cast<double>(*number);
  if (const auto* number = std::get_if<double>(&value)) return *number;
  return std::nullopt;
}

std::optional<std::int64_t> PropertyValue::asInteger() const {
  if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
  return std::nullopt;
}

bool PropertyValue::operator==(const PropertyValue& other) const {
  return value == other.value;
}

}  // namespace volorn
