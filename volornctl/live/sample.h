#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libtop/process_info.h"
#include "platform/date.h"

namespace volorn::ctl {

// A figure that takes two samples, over the time between the two moments at which it was read: none in the
// first, and where a counter fell, as the sum over the threads of a process does when one ends, and that over
// the network's links when one goes.
using Rate = std::optional<double>;

// What the sampler finds in a process beyond that which every sample is printed with.
struct MoreFigures {
  std::int32_t group = 0;
  std::uint32_t running_threads = 0;
  std::uint32_t regions = 0;
  std::uint64_t shared_bytes = 0;           // resident, mapped elsewhere too
  std::uint64_t private_virtual_bytes = 0;  // of regions that are nobody else's
  std::uint64_t untouched_bytes = 0;        // of regions without pages
  std::uint64_t libraries_bytes = 0;        // of shared libraries, private and resident
  std::uint64_t kernel_bytes = 0;           // page tables, and the threads' stacks within the kernel
};

struct ProcessFigures {
  std::int32_t pid = 0;
  std::int32_t ppid = 0;
  std::uint32_t uid = 0;  // effective
  std::string command = {};
  Date started_at = Date::fromSecondsSince1970(0);
  std::int64_t start = 0;                 // with the pid, who it is: pids are used again
  std::uint32_t state = kProcessUnknown;  // ProcessState
  Rate cpu_percent = std::nullopt;        // 100 is one processor
  double cpu_seconds = 0;
  std::uint32_t threads = 0;
  std::optional<std::uint32_t> descriptors = std::nullopt;  // none: nobody may read it, as private_bytes
  std::uint64_t resident_bytes = 0;
  std::optional<std::uint64_t> private_bytes = std::nullopt;
  std::uint64_t virtual_bytes = 0;
  std::uint64_t footprint_bytes = 0;
  Rate faults_per_second = std::nullopt;
  Rate major_faults_per_second = std::nullopt;
  Rate context_switches_per_second = std::nullopt;
  std::optional<MoreFigures> more = std::nullopt;  // not in a sample that was written down
};

// One look at the whole machine: what `top` shows and `top --json` prints.
struct Sample {
  Date at = Date::fromSecondsSince1970(0);                // its end, when the machine's own counters are read
  std::optional<double> interval_seconds = std::nullopt;  // since the sample before
  Rate user_percent = std::nullopt;                       // of all processors together, as the next two
  Rate system_percent = std::nullopt;
  Rate idle_percent = std::nullopt;
  std::array<double, 3> load = {};  // over 1, 5 and 15 minutes
  std::uint32_t threads = 0;
  std::array<std::uint32_t, 8> state_counts = {};  // processes by ProcessState; slot 0 stays 0
  std::uint64_t total_bytes = 0;
  std::optional<std::uint64_t> available_bytes = std::nullopt;  // as the kernel says
  std::uint64_t wired_bytes = 0;
  std::uint64_t active_bytes = 0;
  std::uint64_t inactive_bytes = 0;
  std::uint64_t free_bytes = 0;
  std::optional<std::uint64_t> swap_total_bytes = std::nullopt;
  std::optional<std::uint64_t> swap_used_bytes = std::nullopt;
  Rate in_bytes_per_second = std::nullopt;  // of the network
  Rate out_bytes_per_second = std::nullopt;
  Rate read_bytes_per_second = std::nullopt;  // of the disks
  Rate write_bytes_per_second = std::nullopt;
  std::optional<std::int32_t> thermal_level = std::nullopt;  // 0 to 4; not in a sample that was written down
  std::vector<ProcessFigures> processes = {};                // by ascending pid
};

// By ProcessState: "halted" is a zombie.
const char* stateName(std::uint32_t state);

// A thread of the kernel's own. They have no memory, and all are the second process or its children.
inline bool isKernelThread(const ProcessFigures& process) {
  return process.virtual_bytes == 0 && (process.pid == 2 || process.ppid == 2) &&
         process.state != kProcessHalted;
}

}  // namespace volorn::ctl
