#include "volornctl/text/table.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>

#include "volornctl/text/columns.h"

namespace volorn::ctl {
namespace {

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kPlain = "\x1b[0m";

struct Character {
  std::uint32_t code_point = 0;
  std::size_t length_bytes = 0;
};

// The character that text begins with; none where that is no UTF-8: stray and missing continuation bytes,
// forms longer than needed, surrogates, and what lies past U+10FFFF.
std::optional<Character> firstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  if (byte(0) < 0x80) return Character{byte(0), 1};
  const std::size_t length_bytes = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : 2;
  if (byte(0) < 0xC0 || byte(0) > 0xF4 || text.size() < length_bytes) return std::nullopt;
  std::uint32_t code_point = byte(0) & (0x7FU >> length_bytes);
  for (std::size_t i = 1; i < length_bytes; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return std::nullopt;
    code_point = code_point << 6 | (byte(i) & 0x3F);
  }
  constexpr std::array<std::uint32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  if (code_point < kSmallest[length_bytes] || code_point > 0x10FFFF) return std::nullopt;
  if (code_point >= 0xD800 && code_point <= 0xDFFF) return std::nullopt;
  return Character{code_point, length_bytes};
}

constexpr bool isHarmless(std::uint32_t code_point) {
  struct Range {
    std::uint32_t first, last;
  };
  constexpr std::array kHarmful = {
      Range{0x00, 0x1F},     Range{0x7F, 0x9F},     Range{0x61C, 0x61C},  // controls; direction from here on
      Range{0x200E, 0x200F}, Range{0x2028, 0x202E}, Range{0x2066, 0x2069},
  };
  return std::none_of(kHarmful.begin(), kHarmful.end(), [=](const Range& range) {
    return code_point >= range.first && code_point <= range.last;
  });
}

std::string hex(const char* format, std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string line(const std::vector<std::string>& texts, const Row& row,
                 const std::vector<std::size_t>& widths, bool colour, std::size_t max_columns) {
  std::string line;
  std::size_t blanks = 0;  // owed before the next text
  std::size_t room = max_columns;
  for (std::size_t i = 0; i < row.size(); ++i) {
    if (i > 0) blanks += 2;
    const std::size_t padding = widths[i] - columnsOf(texts[i]);
    if (row[i].right) blanks += padding;
    if (!texts[i].empty()) {
      if (blanks >= room) break;
      room -= blanks;
      const std::string text(beginning(texts[i], room));
      room -= columnsOf(text);
      line.append(blanks, ' ');
      line += row[i].strong && colour ? kBold + text + kPlain : text;
      blanks = 0;
    }
    if (!row[i].right) blanks += padding;
  }
  return line;
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::optional<Character> character = firstCharacter(text);
    const std::size_t length_bytes = character ? character->length_bytes : 1;
    if (!character) {
      result += hex("\\x%02x", static_cast<std::uint8_t>(text[0]));
    } else if (!isHarmless(character->code_point)) {
      result += hex("\\u{%x}", character->code_point);
    } else {
      if (text[0] == '\\') result += '\\';
      result += text.substr(0, length_bytes);
    }
    text.remove_prefix(length_bytes);
  }
  return result;
}

std::vector<std::string> tableLines(const std::vector<Row>& rows, bool colour, std::size_t max_columns) {
  std::vector<std::vector<std::string>> texts;
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    std::vector<std::string>& cells = texts.emplace_back();
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      cells.push_back(escaped(row[i].text));
      widths[i] = std::max(widths[i], columnsOf(cells[i]));
    }
  }
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    lines.push_back(line(texts[i], rows[i], widths, colour, max_columns));
  }
  return lines;
}

std::string table(const std::vector<Row>& rows, bool colour) {
  std::string result;
  for (const std::string& line : tableLines(rows, colour, std::numeric_limits<std::size_t>::max())) {
    result += line + "\n";
  }
  return result;
}

}  // namespace volorn::ctl
