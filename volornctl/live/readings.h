#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "libtop/process_info.h"
#include "libtop/system_sample.h"
#include "platform/date.h"
#include "volornctl/live/sample.h"

namespace volorn::ctl {

// What is kept of one process from one sample to the next. Counters wrap.
struct ProcessReading {
  ProcessFigures figures = {};  // without the rates
  double read_at_seconds = 0;   // uptime: a sample of many processes takes its time
  TimeStamp processor_time = {};
  std::uint32_t faults = 0;
  std::uint32_t major_faults = 0;
  std::uint32_t context_switches = 0;
};

// The sampler does not tell when, nor what it was refused: `read_at_seconds` is left 0, `descriptors` is
// told.
ProcessReading readingOf(const ProcessSample& psamp);

// A whole sample, which the next one does not change.
struct MachineReading {
  Date at;                    // its end, when the machine's own counters are read
  double uptime_seconds = 0;  // of the same moment; unlike `at` it never jumps
  SystemSample system = {};
  std::optional<std::uint64_t> available_bytes = std::nullopt;
  std::optional<std::int32_t> thermal_level = std::nullopt;
  std::vector<ProcessReading> processes = {};  // by ascending pid
};

// What only the kernel's binding saw of a sample, by pid.
struct KernelNotes {
  std::unordered_map<std::int32_t, double> read_at_seconds;  // uptime
};

// Samples the installed platform with the sampler, which has been started, and copies what it found. Throws
// std::runtime_error where the machine's counters cannot be read. `notes` are filled meanwhile; a process
// that they do not tell of was read at the end.
MachineReading takeReading(KernelNotes& notes);

// `before`: the reading before; null for the first one. Processes keep their order.
Sample sampleOf(const MachineReading& now, const MachineReading* before);

}  // namespace volorn::ctl
