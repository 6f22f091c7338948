#include "platform/linux/kernel/parse_net_dev.h"

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<std::vector<LinkCounters>> parseNetDev(std::string_view text) {
  std::vector<LinkCounters> links;
  takeLine(text);
  takeLine(text);
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::size_t colon = line.rfind(':');
    if (colon == line.npos) return std::nullopt;
    FieldReader fields(line.substr(colon + 1));
    LinkCounters link;
    const bool whole = fields.take(link.received_bytes) && fields.take(link.received_packets) &&
                       fields.skip(6) && fields.take(link.sent_bytes) && fields.take(link.sent_packets);
    if (!whole) return std::nullopt;
    links.push_back(link);
  }
  return links;
}

}  // namespace volorn::linux_host
