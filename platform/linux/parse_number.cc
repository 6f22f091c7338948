#include "platform/linux/parse_number.h"

#include <algorithm>
#include <charconv>

namespace volorn::linux_host {

std::string_view withoutTrailingBlanks(std::string_view text) {
  return text.substr(0, text.find_last_not_of(" \t\r\n") + 1);  // npos + 1 is 0: blanks alone leave nothing
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::string_view number = withoutTrailingBlanks(text);
  // from_chars takes a minus alone. A sign behind the plus must not pass for the number's own.
  if (number.starts_with('+')) {
    number.remove_prefix(1);
    if (number.starts_with('-')) return std::nullopt;
  }
  std::int64_t value = 0;
  const char* end = number.data() + number.size();
  const auto [stopped, error] = std::from_chars(number.data(), end, value);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return value;
}

std::optional<std::uint64_t> parseKib(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || std::string_view(stopped, end) != " kB") return std::nullopt;
  return value;
}

}  // namespace volorn::linux_host
