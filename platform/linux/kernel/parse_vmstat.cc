#include "platform/linux/kernel/parse_vmstat.h"

#include <algorithm>
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
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::string_view key = line.substr(0, line.find(' '));
    const auto* const counter = std::ranges::find(kCounters, key, &Counter::key);
    if (counter == kCounters.end()) continue;
    if (!FieldReader(line.substr(key.size())).take(counters.*counter->value)) return std::nullopt;
  }
  return counters;
}

}  // namespace volorn::linux_host
