#include "platform/linux/kernel/parse_process_statm.h"

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<std::uint64_t> parseResidentPages(std::string_view text) {
  std::uint64_t resident_pages = 0;
  FieldReader fields(text);
  const bool is_told = fields.skip(1) && fields.take(resident_pages);
  return is_told ? std::optional(resident_pages) : std::nullopt;
}

}  // namespace volorn::linux_host
