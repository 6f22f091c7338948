#pragma once

#include <string>

#include "platform/linux/state/state_reader.h"

namespace volorn::ctl {

// A snapshot in the exposition format of OpenMetrics, which those who read Prometheus's older text format
// read as well: gauges alone, in base units, without time stamps, "# EOF" last. Each key whose reading was
// had has its gauge; keys that this program does not know have none.
std::string openMetricsText(const linux_host::StoredSnapshot& snapshot);

}  // namespace volorn::ctl
