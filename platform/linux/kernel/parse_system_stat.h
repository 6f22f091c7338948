#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// Of all processors, since the system started.
struct SystemTicks {
  std::uint64_t user = 0;
  std::uint64_t system = 0;  // interrupts, too
  std::uint64_t idle = 0;    // waiting for devices, too; known to fall now and then
  std::uint64_t nice = 0;

  bool operator==(const SystemTicks&) const = default;
};

// The first line of the text of /proc/stat:
//   cpu  80259 7441 16202 519244 1018 0 199 45 0 0
// The columns are user, nice, system, idle, waiting, interrupts, soft interrupts. None unless these are
// there.
std::optional<SystemTicks> parseSystemTicks(std::string_view text);

}  // namespace volorn::linux_host
