#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "platform/date.h"

namespace volorn {

using PreferenceValue = std::variant<Date, std::int64_t>;

// Keys and values kept between runs, by domain. Writes are not acknowledged: one that fails is lost silently
// to its caller, and none is durable before the domain is synchronised.
class PreferencesStore {
 public:
  struct IntegerValue {
    std::int64_t value = 0;
    bool valid = false;  // false: the key is absent or holds no integer
  };

  virtual ~PreferencesStore() = default;

  virtual std::optional<PreferenceValue> copyValue(std::string_view domain, std::string_view key) = 0;
  virtual void setValue(std::string_view domain, std::string_view key, const PreferenceValue& value) = 0;
  virtual IntegerValue getIntegerValue(std::string_view domain, std::string_view key) = 0;
  virtual void synchronise(std::string_view domain) = 0;
};

}  // namespace volorn
