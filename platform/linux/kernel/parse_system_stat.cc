#include "platform/linux/kernel/parse_system_stat.h"

#include <array>

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<SystemTicks> parseSystemTicks(std::string_view text) {
  constexpr std::string_view kTicks = "cpu ";
  if (!text.starts_with(kTicks)) return std::nullopt;
  FieldReader fields(takeLine(text).substr(kTicks.size()));
  std::array<std::uint64_t, 7> columns = {};
  for (std::uint64_t& column : columns) {
    if (!fields.take(column)) return std::nullopt;
  }
  const auto [user, nice, system, idle, waiting, interrupts, soft_interrupts] = columns;
  return SystemTicks{
      .user = user, .system = system + interrupts + soft_interrupts, .idle = idle + waiting, .nice = nice};
}

}  // namespace volorn::linux_host
