#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// What the scheduler knows of a thread.
struct ThreadSchedule {
  std::int64_t last_ran_ms = 0;  // by the scheduler's clock of the processor where it ran
  std::uint64_t context_switches = 0;
};

// The text of /proc/PID/task/TID/sched, a figure a line below a line of dashes:
//   bash (23625, #threads: 1)
//   -------------------------------------------------------------------
//   se.exec_start                                :       3128305.086974
//   nr_switches                                  :                    6
// The name may hold newlines, too few bytes though for a line of dashes and a figure. None unless both
// figures are there.
std::optional<ThreadSchedule> parseSchedule(std::string_view text);

}  // namespace volorn::linux_host
