#include "platform/linux/kernel/parse_system_stat.h"

#include <array>

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<SystemStat> parseSystemStat(std::string_view text) {
  constexpr std::string_view kTicks = "cpu ";
  constexpr std::string_view kBootTime = "btime ";
  if (!text.starts_with(kTicks)) return std::nullopt;
  FieldReader fields(takeLine(text).substr(kTicks.size()));
  std::array<std::uint64_t, 7> columns = {};
  for (std::uint64_t& column : columns) {
    if (!fields.take(column)) return std::nullopt;
  }
  const auto [user, nice, system, idle, waiting, interrupts, soft_interrupts] = columns;
  SystemStat stat;
  // The record's counters wrap.
  stat.ticks = {.user = static_cast<std::uint32_t>(user),
                .system = static_cast<std::uint32_t>(system + interrupts + soft_interrupts),
                .idle = static_cast<std::uint32_t>(idle + waiting),
                .nice = static_cast<std::uint32_t>(nice)};
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    if (!line.starts_with(kBootTime)) continue;
    if (!FieldReader(line.substr(kBootTime.size())).take(stat.boot_time_seconds)) break;
    return stat;
  }
  return std::nullopt;
}

}  // namespace volorn::linux_host
