#include "platform/linux/regions/parse_smaps.h"

#include <algorithm>
#include <charconv>

#include "platform/kernel_records.h"

namespace volorn::linux_host {
namespace {

constexpr std::uint64_t kKibBytes = 1024;

// Takes a number and the character behind it off the text.
bool takeNumber(std::string_view& text, int base, char behind, std::uint64_t& value) {
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || stopped == end || *stopped != behind) return false;
  text.remove_prefix(static_cast<std::size_t>(stopped - text.data()) + 1);
  return true;
}

// Takes "r-xp " off the text.
bool takePermissions(std::string_view& text, Mapping& mapping) {
  if (text.size() < 5 || text[4] != ' ') return false;
  mapping.protection = (text[0] == 'r' ? kProtectionRead : 0) | (text[1] == 'w' ? kProtectionWrite : 0) |
                       (text[2] == 'x' ? kProtectionExecute : 0);
  mapping.is_shared = text[3] == 's';
  text.remove_prefix(5);
  return true;
}

std::optional<Mapping> parseMapping(std::string_view line) {
  Mapping mapping;
  std::uint64_t major = 0;
  std::uint64_t minor = 0;
  const bool is_read = takeNumber(line, 16, '-', mapping.start) && takeNumber(line, 16, ' ', mapping.end) &&
                       takePermissions(line, mapping) &&
                       takeNumber(line, 16, ' ', mapping.file_offset_bytes) &&
                       takeNumber(line, 16, ':', major) && takeNumber(line, 16, ' ', minor) &&
                       takeNumber(line, 10, ' ', mapping.file.inode);
  if (!is_read || mapping.end <= mapping.start) return std::nullopt;
  mapping.file.device = major << 32 | minor;
  return mapping;
}

bool takeField(std::string_view line, std::uint64_t page_size_bytes, Mapping& mapping) {
  if (line[0] != 'P' && line[0] != 'S') return true;  // as most lines
  const bool is_private = line.starts_with("Private_Clean:") || line.starts_with("Private_Dirty:");
  const bool is_shared = line.starts_with("Shared_Clean:") || line.starts_with("Shared_Dirty:");
  if (!is_private && !is_shared && !line.starts_with("Swap:")) return true;
  line.remove_prefix(line.find(':') + 1);
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  std::uint64_t kib = 0;
  if (!takeNumber(line, 10, ' ', kib)) return false;
  const std::uint64_t pages = kib / (page_size_bytes / kKibBytes);
  if (is_private) {
    mapping.private_pages += pages;
  } else if (is_shared) {
    mapping.shared_pages += pages;
  } else {
    mapping.is_swapped = pages != 0;
  }
  return true;
}

}  // namespace

std::optional<std::size_t> parseSmaps(std::string_view text, std::uint64_t page_size_bytes,
                                      std::vector<Mapping>& mappings) {
  std::size_t taken = 0;
  for (std::size_t newline; (newline = text.find('\n', taken)) != text.npos; taken = newline + 1) {
    const std::string_view line = text.substr(taken, newline - taken);
    const bool is_field = !line.empty() && line[0] >= 'A' && line[0] <= 'Z';  // addresses have small letters
    if (is_field) {
      if (mappings.empty() || !takeField(line, page_size_bytes, mappings.back())) return std::nullopt;
    } else {
      const std::optional<Mapping> mapping = parseMapping(line);
      if (!mapping) return std::nullopt;
      mappings.push_back(*mapping);
    }
  }
  return taken;
}

}  // namespace volorn::linux_host
