#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "platform/linux/kernel/switch_counts.h"

namespace volorn::linux_host {

// What is known of processes from one sample to the next, with what tells whether it still holds.
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
    std::uint32_t sample = 0;  // in which it was asked about last
    bool regions_are_known = false;
    bool descriptors_are_known = false;
    std::optional<ProcessorType> processor_type = std::nullopt;
    std::optional<LastRun> last_run = std::nullopt;  // of a process of one thread
    SwitchCounts switches = {};
  };

  // Empty for a process not met before. Stays where it is until the next sample begins.
  Process& of(std::int32_t pid, std::uint64_t start_ticks) {
    Process& process = known_[pid];
    if (process.start_ticks != start_ticks) process = {.start_ticks = start_ticks};
    process.sample = sample_;
    return process;
  }

  // The process met last under the pid; null when there is none.
  const Process* find(std::int32_t pid) const {
    const auto found = known_.find(pid);
    return found == known_.end() ? nullptr : &found->second;
  }

  // Once most of what is known is of processes that have gone, forgets those not met in the sample before.
  void beginSample(std::size_t living_processes) {
    if (known_.size() > 2 * living_processes) {
      std::erase_if(known_, [&](const auto& entry) { return entry.second.sample != sample_; });
    }
    ++sample_;
  }

 private:
  std::unordered_map<std::int32_t, Process> known_;
  std::uint32_t sample_ = 0;
};

}  // namespace volorn::linux_host
