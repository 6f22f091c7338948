#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/kernel_records.h"
#include "platform/time_stamp.h"

namespace volorn {

// Follows a 32-bit counter that wraps.
struct Counter64 {
  std::uint64_t total;
  std::uint32_t last;  // the raw value seen last
};

struct EventTotal {
  Counter64 counter;
  std::uint64_t value;   // the counter's total after the latest update
  std::uint64_t unused;  // keeps the record as agreed; nobody fills it
  std::uint64_t value_prev;
};

// A process has the smallest code of its threads.
enum ProcessState : std::uint32_t {
  kProcessRunning = 1,
  kProcessUninterruptible = 2,
  kProcessSleeping = 3,  // waits, and ran less than a second ago
  kProcessIdle = 4,      // waits for a second or longer
  kProcessStopped = 5,
  kProcessHalted = 6,
  kProcessUnknown = 7  // or no threads
};

// One process in the latest sample. Sizes are bytes; `_prev` is the value before the latest update, `_begin`
// that of the update which found the process first. Sizes said to be walked are those of the latest region
// walk.
struct ProcessSample {
  std::uint32_t uid = 0;  // effective
  std::uint32_t pid = 0;  // compared as a signed number
  std::uint32_t ppid = 0;
  std::uint32_t pgid = 0;
  std::uint64_t resident = 0;
  std::uint64_t virtual_size = 0;
  std::uint64_t private_resident = 0;  // walked, as all up to region_count
  std::uint64_t private_virtual = 0;
  std::uint64_t shared_resident = 0;
  std::uint64_t shlib_private = 0;  // private and resident in the range of the shared libraries
  std::uint64_t empty_virtual = 0;  // of regions without pages
  std::uint32_t region_count = 0;
  // Before the latest walk; 0 when that was in the first sample.
  std::uint32_t region_count_prev = 0;
  std::uint64_t resident_prev = 0;
  std::uint64_t private_virtual_prev = 0;
  std::uint64_t virtual_size_prev = 0;
  std::uint64_t private_resident_prev = 0;
  std::uint64_t shared_resident_prev = 0;
  std::uint64_t empty_virtual_prev = 0;
  std::uint64_t footprint = 0;  // internal memory that the kernel cannot drop
  std::uint64_t purgeable_resident = 0;
  std::uint64_t footprint_prev = 0;
  std::uint64_t purgeable_resident_prev = 0;
  std::uint32_t threads = 0;
  std::uint32_t threads_prev = 0;  // 0 in the first sample, as running_threads_prev
  std::uint32_t running_threads = 0;
  std::uint32_t running_threads_prev = 0;
  std::uint32_t ports = 0;
  std::uint32_t ports_prev = 0;
  std::uint32_t state = 0;    // ProcessState
  TimeStamp total_time = {};  // of the processors, for ended and live threads, idle ones left out
  TimeStamp total_time_begin = {};
  TimeStamp total_time_prev = {};
  std::array<std::int32_t, kTaskEventCount> events = {};  // raw counters by TaskEvent
  std::array<std::int32_t, kTaskEventCount> events_begin = {};
  std::array<std::int32_t, kTaskEventCount> events_prev = {};
  EventTotal faults = {};  // the same counters, in the same order, without their wraps
  EventTotal pageins = {};
  EventTotal cow_faults = {};
  EventTotal messages_sent = {};
  EventTotal messages_received = {};
  EventTotal syscalls_mach = {};
  EventTotal syscalls_bsd = {};
  EventTotal csw = {};
  std::array<std::uint64_t, 4> kernel_memory =
      {};  // private allocated, private freed, shared allocated, shared freed
  std::array<std::uint64_t, 4> kernel_memory_prev = {};
  std::string command;
  std::uint32_t seq = 0;       // SystemSample::seq of the last sample that saw the process
  std::uint32_t seq_prev = 0;  // its value before; 0 when this sample found the process first
  TimeStamp started = {};
  std::uint32_t cpu_type = 0;                   // 0 when it is not known
  std::array<std::uint32_t, 3> workqueue = {};  // threads: all, running, blocked
  std::array<std::uint32_t, 3> workqueue_prev = {};
  std::array<std::uint64_t, 6> power = {};  // as TaskPowerInfo
  std::array<std::uint64_t, 6> power_begin = {};
  std::array<std::uint64_t, 6> power_prev = {};
};

enum RegionMode : std::uint32_t {
  kFollowSample = 0,  // walk the regions when the sample says so
  kDoNotForceWalk = 1,
  kAlwaysWalk = 2
};

struct ProcessInfo;

enum NodeColour : std::uint32_t { kBlack = 0, kRed = 1 };

struct TreeLinks {
  ProcessInfo* parent = nullptr;
  ProcessInfo* left = nullptr;
  ProcessInfo* right = nullptr;
  std::uint32_t colour = 0;  // NodeColour
};

// The table's record of a process. It never moves; the table frees it.
struct ProcessInfo {
  ProcessSample psamp;
  TreeLinks pid_links = {};
  TreeLinks other_links = {};     // for an order that nobody builds
  std::uint32_t proc_flags = 0;   // the kernel's
  std::uint32_t region_mode = 0;  // RegionMode
  std::uint32_t split = 0;        // 1 when the last walk found the shared-library range split
};

}  // namespace volorn
