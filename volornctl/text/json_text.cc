#include "volornctl/text/json_text.h"

#include "volornctl/text/time_text.h"

namespace volorn::ctl {

Json jsonTime(const std::optional<Date>& date) {
  const std::optional<std::string> text = date ? rfc3339(*date) : std::nullopt;
  return text ? Json(*text) : Json();
}

Json jsonMilliseconds(const Date& date) {
  const std::optional<std::string> text = rfc3339Milliseconds(date);
  return text ? Json(*text) : Json();
}

std::string jsonText(const Json& document) {
  return document.dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace);
}

std::string jsonLine(const Json& document) {
  return jsonText(document) + "\n";
}

}  // namespace volorn::ctl
