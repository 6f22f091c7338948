#pragma once

#include <algorithm>
#include <charconv>
#include <string_view>

namespace volorn::linux_host {

// Takes the first line off a text; without its newline.
inline std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

// Takes whole numbers off the front of a text, parted by blanks.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

  // False, and nothing taken, when the next field is no number or beyond the type. One that stays after a
  // failure stays for the next call.
  template <typename Number>
  bool take(Number& number) {
    skipBlanks();
    Number value = 0;
    const auto [stopped, error] = std::from_chars(at_, end_, value);
    if (error != std::errc() || (stopped != end_ && !isBlank(*stopped))) return false;
    at_ = stopped;
    number = value;
    return true;
  }

  // Passes over so many fields, whatever they hold; false when there are fewer.
  bool skip(int fields) {
    for (; fields > 0; --fields) {
      skipBlanks();
      if (at_ == end_) return false;
      at_ = std::find_if(at_, end_, isBlank);
    }
    return true;
  }

 private:
  static bool isBlank(char character) { return character == ' ' || character == '\t' || character == '\n'; }
  void skipBlanks() { at_ = std::find_if_not(at_, end_, isBlank); }

  const char* at_;
  const char* end_;
};

}  // namespace volorn::linux_host
