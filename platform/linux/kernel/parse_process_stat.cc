#include "platform/linux/kernel/parse_process_stat.h"

#include <algorithm>

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<ProcessStat> parseProcessStat(std::string_view text) {
  const std::size_t open = text.find(" (");
  const std::size_t close = text.rfind(") ");
  if (open == text.npos || close == text.npos || close < open + 2 || close + 2 == text.size()) {
    return std::nullopt;
  }
  ProcessStat stat;
  std::int32_t pid = 0;
  if (!FieldReader(text.substr(0, open)).take(pid)) return std::nullopt;
  const std::string_view name = text.substr(open + 2, close - open - 2);
  stat.name_length_bytes = name.copy(stat.name_bytes.data(), stat.name_bytes.size());
  stat.state = text[close + 2];
  FieldReader fields(text.substr(close + 2));
  // The numbers of the fields, as proc(5) counts them, stand behind.
  const bool whole = fields.skip(1) && fields.take(stat.parent) && fields.take(stat.group) &&  // 3, 4, 5
                     fields.skip(3) && fields.take(stat.flags) &&                              // 9
                     fields.take(stat.minor_faults) && fields.skip(1) &&                       // 10
                     fields.take(stat.major_faults) && fields.skip(1) &&                       // 12
                     fields.take(stat.user_ticks) && fields.take(stat.system_ticks) &&         // 14, 15
                     fields.skip(4) && fields.take(stat.threads) &&                            // 20
                     fields.skip(1) && fields.take(stat.start_ticks) &&                        // 22
                     fields.skip(3) && fields.take(stat.start_code) &&                         // 26
                     fields.skip(12) && fields.take(stat.processor);                           // 39
  return whole ? std::optional(stat) : std::nullopt;
}

}  // namespace volorn::linux_host
