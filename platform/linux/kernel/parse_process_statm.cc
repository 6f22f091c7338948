#include "platform/linux/kernel/parse_process_statm.h"

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<ProcessPages> parseProcessPages(std::string_view text) {
  ProcessPages pages;
  FieldReader fields(text);
  const bool is_whole = fields.take(pages.mapped) && fields.take(pages.resident) && fields.take(pages.shared);
  return is_whole ? std::optional(pages) : std::nullopt;
}

}  // namespace volorn::linux_host
