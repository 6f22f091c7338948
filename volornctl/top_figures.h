#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libtop/process_info.h"
#include "libtop/system_sample.h"
#include "platform/date.h"

namespace volorn::ctl {

// What is kept of one process from one sample to the next. Counters wrap.
struct ProcessReading {
  double read_at_seconds = 0;  // uptime: a sample of many processes takes its time
  std::int32_t pid = 0;
  TimeStamp started = {};  // with the pid, who it is: pids are used again
  std::string command = {};
  std::uint32_t state = kProcessUnknown;  // ProcessState
  TimeStamp processor_time = {};
  std::uint32_t threads = 0;
  std::uint64_t resident_bytes = 0;
  std::uint64_t private_bytes = 0;
  std::uint64_t virtual_bytes = 0;
  std::uint32_t faults = 0;
  std::uint32_t context_switches = 0;
};

// The sampler does not tell when: that is left 0.
ProcessReading readingOf(const ProcessSample& psamp);

// A whole sample, which the next one does not change.
struct TopSample {
  Date at;                    // its end, when the machine's own counters are read
  double uptime_seconds = 0;  // of the same moment; unlike `at` it never jumps
  SystemSample system = {};
  std::vector<ProcessReading> processes = {};  // by ascending pid
};

// A figure that takes two samples, over the time between the two moments at which it was read: none in the
// first, and where a counter fell, as the sum over the threads of a process does when one ends, and that over
// the network's links when one goes.
using Rate = std::optional<double>;

struct ProcessFigures {
  std::int32_t pid = 0;
  std::string command = {};
  std::uint32_t state = kProcessUnknown;  // ProcessState
  Rate cpu_percent = std::nullopt;        // 100 is one processor
  std::uint32_t threads = 0;
  std::uint64_t resident_bytes = 0;
  std::uint64_t private_bytes = 0;
  std::uint64_t virtual_bytes = 0;
  Rate faults_per_second = std::nullopt;
  Rate context_switches_per_second = std::nullopt;
};

struct TopFigures {
  Date at;
  std::optional<double> interval_seconds = std::nullopt;  // since the sample before
  Rate user_percent = std::nullopt;                       // of all processors together, as the next two
  Rate system_percent = std::nullopt;
  Rate idle_percent = std::nullopt;
  std::array<double, 3> load = {};
  std::uint32_t threads = 0;
  std::uint64_t wired_bytes = 0;
  std::uint64_t active_bytes = 0;
  std::uint64_t inactive_bytes = 0;
  std::uint64_t free_bytes = 0;
  Rate in_bytes_per_second = std::nullopt;  // of the network
  Rate out_bytes_per_second = std::nullopt;
  Rate read_bytes_per_second = std::nullopt;  // of the disks
  Rate write_bytes_per_second = std::nullopt;
  std::vector<ProcessFigures> processes = {};
};

// `before`: the sample before; null for the first one. Processes keep their order.
TopFigures figuresOf(const TopSample& now, const TopSample* before);

enum class TopOrder { kCpu, kPrivate, kResident, kFaults, kSwitches };

// The most first; those of which it is not known last; what is equal stays in its order.
void sortProcesses(std::vector<ProcessFigures>& processes, TopOrder order);

}  // namespace volorn::ctl
