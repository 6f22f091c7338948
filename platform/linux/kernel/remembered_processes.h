#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>

namespace volorn::linux_host {

// What is costly to find out about processes and lasts from one sample to the next, with what tells whether
// it still holds.
class RememberedProcesses {
 public:
  struct ProcessorType {
    std::uint64_t start_code;  // moves when another program is executed
    std::uint32_t cpu_type;
  };
  // Of a thread that is not running. As long as it has not been switched to, it has not run.
  struct LastRun {
    std::uint64_t context_switches;
    std::int64_t last_ran_ms;
  };
  struct Process {
    std::uint64_t start_ticks = 0;
    std::optional<ProcessorType> processor_type = std::nullopt;
    std::optional<LastRun> last_run = std::nullopt;  // of a process of one thread
  };

  // Empty for a process not met before.
  Process& of(std::int32_t pid, std::uint64_t start_ticks) {
    Process& process = known_[pid];
    if (process.start_ticks != start_ticks) process = {.start_ticks = start_ticks};
    return process;
  }

  // Forgets all, once most of what is known is of processes that have gone.
  void tidy(std::size_t living_processes) {
    if (known_.size() > 2 * living_processes) known_.clear();
  }

 private:
  std::unordered_map<std::int32_t, Process> known_;
};

}  // namespace volorn::linux_host
