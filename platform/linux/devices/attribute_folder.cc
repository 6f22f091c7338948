#include "platform/linux/devices/attribute_folder.h"

#include <limits.h>
#include <unistd.h>

#include <array>

#include "platform/linux/parse_number.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {

std::optional<std::int64_t> AttributeFolder::integer(std::string_view name) const {
  const std::optional<std::string> value = text(name);
  return value ? parseInteger(*value) : std::nullopt;
}

std::optional<std::string> AttributeFolder::text(std::string_view name) const {
  FileBytes file = readFile(prefix_ + std::string(name), kAttributeLimitBytes);
  file.bytes.resize(withoutTrailingBlanks(file.bytes).size());
  if (file.bytes.empty()) return std::nullopt;
  return std::move(file.bytes);
}

std::string AttributeFolder::linkedName(std::string_view name) const {
  std::array<char, PATH_MAX> target = {};
  const ssize_t size = readlink((prefix_ + std::string(name)).c_str(), target.data(), target.size());
  if (size <= 0) return {};
  const std::string_view path(target.data(), static_cast<std::size_t>(size));
  return std::string(path.substr(path.rfind('/') + 1));  // npos + 1 is 0: a lone name
}

}  // namespace volorn::linux_host
