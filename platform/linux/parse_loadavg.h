#pragma once

#include <array>
#include <string_view>

namespace volorn::linux_host {

struct LoadAverages {
  std::array<double, 3> samples = {};  // over 1, 5 and 15 minutes
  int count = 0;                       // how many of them could be read, from the first on
};

// The text of /proc/loadavg:
//   0.20 0.18 0.12 1/80 11206
LoadAverages parseLoadAverages(std::string_view text);

}  // namespace volorn::linux_host
