#include "platform/linux/kernel/parse_vmstat.h"

#include <array>

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {
namespace {

struct Counter {
  std::string_view key;
  std::uint64_t VmCounters::*value;
};

constexpr std::array kCounters = {
    Counter{"pgpgin", &VmCounters::read_kib},
    Counter{"pgpgout", &VmCounters::written_kib},
    Counter{"pgactivate", &VmCounters::activations},
    Counter{"pgfault", &VmCounters::faults},
};

}  // namespace

std::optional<VmCounters> parseVmCounters(std::string_view text) {
  VmCounters counters;
  unsigned found = 0;  // a bit for each of kCounters
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::string_view key = line.substr(0, line.find(' '));
    for (unsigned i = 0; i < kCounters.size(); ++i) {
      if (kCounters[i].key != key) continue;
      if (!FieldReader(line.substr(key.size())).take(counters.*kCounters[i].value)) return std::nullopt;
      found |= 1U << i;
    }
  }
  return found == (1U << kCounters.size()) - 1 ? std::optional(counters) : std::nullopt;
}

}  // namespace volorn::linux_host
