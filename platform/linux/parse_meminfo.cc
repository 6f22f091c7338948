#include "platform/linux/parse_meminfo.h"

#include <array>

#include "platform/linux/parse_fields.h"
#include "platform/linux/parse_number.h"

namespace volorn::linux_host {
namespace {

struct Field {
  std::string_view key;
  std::optional<std::uint64_t> MemoryInfo::*kib;
};

constexpr std::array kFields = {
    Field{"MemTotal", &MemoryInfo::total_kib},         Field{"MemFree", &MemoryInfo::free_kib},
    Field{"MemAvailable", &MemoryInfo::available_kib}, Field{"Active", &MemoryInfo::active_kib},
    Field{"Inactive", &MemoryInfo::inactive_kib},      Field{"SwapTotal", &MemoryInfo::swap_total_kib},
    Field{"SwapFree", &MemoryInfo::swap_free_kib},
};

}  // namespace

MemoryInfo parseMemoryInfo(std::string_view text) {
  MemoryInfo info;
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::size_t colon = line.find(':');
    if (colon == line.npos) continue;
    for (const Field& field : kFields) {
      if (field.key == line.substr(0, colon)) info.*field.kib = parseKib(line.substr(colon + 1));
    }
  }
  return info;
}

}  // namespace volorn::linux_host
