#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "volornctl/live/replay_source.h"
#include "volornctl/text/graph.h"

namespace volorn::ctl {

// A whole record over a width, by time.
struct ReplayStrip {
  Series busy_percent;  // the means of each column
  Series used_percent;
  std::string
      breaks;  // z, x and ! where the machine slept, nothing was recorded, the clock was set; else blanks
  std::size_t place = 0;  // the column of the sample that is shown
};

ReplayStrip stripOf(const std::vector<RecordedSample>& samples, std::size_t place, std::size_t columns);

}  // namespace volorn::ctl
