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

// What a thread has had of the processors. As long as it is the same the thread has not run: one that keeps
// its processor keeps its slices, and the time of one that has just got its first processor is 0 until the
// next tick.
struct ThreadRuns {
  std::uint64_t run_ns = 0;
  std::uint64_t waited_ns = 0;
  std::uint64_t slices = 0;

  bool operator==(const ThreadRuns&) const = default;
};

// The text of /proc/PID/schedstat and /proc/PID/task/TID/schedstat:
//   31128305 289681 17
// None as well for zeros, which a kernel shows that does not count them.
std::optional<ThreadRuns> parseThreadRuns(std::string_view text);

}  // namespace volorn::linux_host
