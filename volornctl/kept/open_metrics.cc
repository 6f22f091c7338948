#include "volornctl/kept/open_metrics.h"

#include "volornctl/kept/gauges.h"

namespace volorn::ctl {

std::string openMetricsText(const linux_host::StoredSnapshot& snapshot) {
  std::string text;
  for (const Gauge& gauge : gaugesOf(snapshot)) {
    const std::string name(gauge.name);
    text += "# HELP " + name + " " + std::string(gauge.help) + "\n# TYPE " + name + " gauge\n" + name + " " +
            gauge.value + "\n";
  }
  return text + "# EOF\n";
}

}  // namespace volorn::ctl
