#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "platform/kernel_records.h"
#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/kernel/parse_process_status.h"
#include "platform/linux/kernel/process_files.h"
#include "platform/linux/kernel/switch_counts.h"
#include "platform/linux/kernel/task_thread.h"

namespace volorn::linux_host {

// What is known of processes from one sample to the next, with what tells whether it still holds.
class RememberedProcesses {
 public:
  // What is looked at again though the process has not run, each process in its turn, at the latest.
  static constexpr std::uint32_t kSamplesToOthersWork = 10;  // what is cheap to read, for what others did
  static constexpr std::uint32_t kSamplesToPages = 100;

  struct ProcessorType {
    std::uint64_t start_code;  // moves when another program is executed
    std::uint32_t cpu_type;
  };
  // Of a thread that is not running. As long as it has not been switched to, it has not run.
  struct LastRun {
    std::uint64_t context_switches;
    std::int64_t last_ran_ms;
  };
  // Read after the marks, so that it holds as long as they do.
  struct Facts {
    ProcessStat stat;
    ProcessStatus status;
    std::vector<TaskThread> threads;
    std::optional<std::uint64_t> context_switches = {};            // none: not asked for, as what follows
    std::optional<std::optional<std::uint64_t>> descriptors = {};  // as Task::descriptors()
    std::optional<std::vector<RegionGroup>> groups = {};
    bool parent_was_there = false;
  };
  struct Process {
    std::uint64_t start_ticks = 0;
    std::uint32_t sample = 0;  // in which it was listed or asked about last
    std::uint32_t turn = 0;    // in which its turns come, so that those of all are spread evenly
    bool regions_are_known = false;
    bool descriptors_are_known = false;
    std::optional<ProcessorType> processor_type = std::nullopt;
    std::optional<LastRun> last_run = std::nullopt;  // of a process of one thread
    SwitchCounts switches = {};
    std::vector<RunMark> marks = {};              // of its threads
    std::vector<FileDescriptor> mark_files = {};  // of each mark, as far as it is held open
    std::optional<Facts> facts = std::nullopt;
    std::size_t charged_bytes = 0;  // for what is served from memory: `marks` and `facts`
  };

  // From now on marks and facts may be kept, in so many bytes, a part of them by the kernel for open files.
  // Of these there may be so many.
  void remember(std::size_t most_bytes, std::size_t most_files);
  bool isOn() const { return most_bytes_ != 0; }

  // How many files may be held open beyond those that are held since before this sample.
  std::size_t roomForFiles() const { return most_files_ - std::min(most_files_, held_files_); }

  // Empty for a process not met before. Stays where it is until the next sample begins.
  Process& of(std::int32_t pid, std::uint64_t start_ticks);

  // The process met last under the pid; null when there is none.
  Process* find(std::int32_t pid);

  // Counts what is kept of the process now, and forgets its marks and facts when that is too much.
  void charge(Process& process);

  // After another process has left or changed what it may have shared with this one; null for none.
  static void walkAgain(Process* process);

  // Whether the turn of the process has come in this sample.
  bool isTurnOf(const Process& process, std::uint32_t samples) const {
    return (sample_ + process.turn) % samples == 0;
  }

  // Of the memory objects behind all remembered regions, in ascending order.
  std::vector<std::uint32_t> objectIds() const;

  // Forgets the processes that are not listed any more.
  void beginSample(std::span<const std::int32_t> pids);

 private:
  std::unordered_map<std::int32_t, Process> known_;
  std::uint32_t sample_ = 0;
  std::uint32_t turns_ = 0;
  std::size_t most_bytes_ = 0;
  std::size_t charged_bytes_ = 0;
  std::size_t most_files_ = 0;
  std::size_t held_files_ = 0;
};

}  // namespace volorn::linux_host
