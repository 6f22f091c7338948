#include "platform/linux/attribute_folder.h"

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

}  // namespace volorn::linux_host
