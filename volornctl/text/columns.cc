#include "volornctl/text/columns.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstdint>

namespace volorn::ctl {
namespace {

bool beginsCharacter(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0) != 0x80;
}

// The code point of a character alone.
std::uint32_t codePoint(std::string_view character) {
  if (character.size() == 1) return static_cast<std::uint8_t>(character[0]);
  std::uint32_t code_point = static_cast<std::uint8_t>(character[0]) & (0x7FU >> character.size());
  for (const char byte : character.substr(1)) {
    code_point = code_point << 6 | (static_cast<std::uint8_t>(byte) & 0x3F);
  }
  return code_point;
}

// The C library's own table, whatever locale the program runs in.
std::size_t columnsOf(std::uint32_t code_point) {
  if (code_point < 0x80) return 1;
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (utf8 == nullptr) return 1;
  const locale_t before = uselocale(utf8);
  const int columns = wcwidth(static_cast<wchar_t>(code_point));
  uselocale(before);
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

std::string_view firstCharacter(std::string_view text) {
  std::size_t end = 1;
  while (end < text.size() && !beginsCharacter(text[end])) ++end;
  return text.substr(0, end);
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const std::string_view character = firstCharacter(text);
    columns += columnsOf(codePoint(character));
    text.remove_prefix(character.size());
  }
  return columns;
}

std::string_view beginning(std::string_view text, std::size_t max_columns) {
  std::size_t end = 0;
  while (end < text.size()) {
    const std::string_view character = firstCharacter(text.substr(end));
    const std::size_t columns = columnsOf(codePoint(character));
    if (columns > max_columns) break;
    max_columns -= columns;
    end += character.size();
  }
  return text.substr(0, end);
}

std::vector<std::string> wrapped(std::string_view text, std::size_t max_columns) {
  std::vector<std::string> lines;
  while (columnsOf(text) > max_columns) {
    std::string_view line = beginning(text, max_columns);
    if (line.empty()) line = firstCharacter(text);
    const std::size_t blank = text.substr(0, line.size() + 1).rfind(' ');
    if (blank != std::string_view::npos && blank > 0) line = text.substr(0, blank);
    lines.emplace_back(line);
    text.remove_prefix(line.size());
    if (text.starts_with(' ')) text.remove_prefix(1);
  }
  lines.emplace_back(text);
  return lines;
}

std::string padded(std::string_view text, std::size_t columns, bool right) {
  std::string shown(beginning(text, columns));
  const std::size_t blanks = columns - std::min(columns, columnsOf(shown));
  return right ? shown.insert(0, blanks, ' ') : shown.append(blanks, ' ');
}

}  // namespace volorn::ctl
