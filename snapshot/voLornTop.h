#pragma once

#include <optional>

#include "libtop/libtop.h"
#include "snapshot/activity_summary.h"

namespace volorn {

// Folds one sample of the machine and its processes into a summary.
class voLornTop {
 public:
  // Starts the sampler, takes one sample, ends the sampler. The result is the system's summary and, last,
  // "Process Stats": a nested summary for each process, by ascending pid, under its command, an underscore
  // and its pid.
  //
  // There is one sample and no waiting, so every rate and every processor share of a process is 0, and the
  // processor shares of the system tell the time that sampling took.
  //
  // None when the sampler cannot start or cannot sample; after the latter it stays started. It must be used
  // by nobody else meanwhile.
  static std::optional<ActivitySummary> _getTopData();
};

// The figures of the whole machine: 37, with those of the swap space 39. Sizes are bytes. What counts events
// is divided by `divisor_seconds`, whatever the time between the two samples.
ActivitySummary systemSummary(const SystemSample& sample, double divisor_seconds);

// The 18 figures of one process of `sample`. The command's bytes are those that the process has, UTF-8 or
// not. "CPU/%CPU" is 100 for one processor; with no time between the samples it is infinite or no number.
ActivitySummary processSummary(const SystemSample& sample, const ProcessSample& psamp,
                               double divisor_seconds);

}  // namespace volorn
