#include "platform/linux/kernel/parse_mountinfo.h"

#include <charconv>

namespace volorn::linux_host {
namespace {

// Takes a number and the character behind it off the line.
template <typename Number>
bool takeNumber(std::string_view& line, char behind, Number& number) {
  const char* end = line.data() + line.size();
  const auto [stopped, error] = std::from_chars(line.data(), end, number);
  if (error != std::errc() || stopped == end || *stopped != behind) return false;
  line.remove_prefix(static_cast<std::size_t>(stopped - line.data()) + 1);
  return true;
}

}  // namespace

std::optional<MountedFileSystem> parseMount(std::string_view line) {
  constexpr std::string_view kBeforeType = " - ";
  MountedFileSystem mounted;
  std::uint64_t parent_id = 0;
  if (!takeNumber(line, ' ', mounted.mount_id) || !takeNumber(line, ' ', parent_id) ||
      !takeNumber(line, ':', mounted.device_major) || !takeNumber(line, ' ', mounted.device_minor)) {
    return std::nullopt;
  }
  const std::size_t separator = line.find(kBeforeType);
  if (separator == line.npos) return std::nullopt;
  line.remove_prefix(separator + kBeforeType.size());
  mounted.type = line.substr(0, line.find(' '));
  return mounted.type.empty() ? std::nullopt : std::optional(mounted);
}

}  // namespace volorn::linux_host
