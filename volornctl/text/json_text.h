#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/date.h"

namespace volorn::ctl {

using Json = nlohmann::ordered_json;

// The number that every document with a fixed form begins with.
inline constexpr int kJsonSchema = 1;

// RFC 3339; null for no date and for one that cannot be shown.
Json jsonTime(const std::optional<Date>& date);

// The same to the millisecond.
Json jsonMilliseconds(const Date& date);

// Null for none.
template <typename Number>
Json jsonNumber(const std::optional<Number>& number) {
  return number ? Json(*number) : Json();
}

// In ASCII alone: a terminal obeys control characters beyond ASCII too. Bytes that are no UTF-8 become
// U+FFFD.
std::string jsonText(const Json& document);

// The same as one line, its end included.
std::string jsonLine(const Json& document);

}  // namespace volorn::ctl
