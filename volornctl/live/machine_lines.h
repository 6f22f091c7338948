#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "volornctl/live/sample.h"

namespace volorn::ctl {

// A line of figures of the whole machine.
struct MachineLine {
  const char* label;
  std::vector<std::string> fields;  // the most important first
  bool is_alarming;                 // busy, short or hot
  std::optional<double> value;      // what its graph shows
  double full;                      // where the graph is at its highest; 0: at the highest value in it
};

// Processors, memory, load, tasks, network, disk and swap; that of the heat only where there is any.
std::vector<MachineLine> machineLines(const Sample& sample);

// The values of the lines over time.
class MachineHistory {
 public:
  void take(const Sample& sample);

  // The graph of a line, by its label, one character for as many samples as make the last five minutes fit;
  // the newest at the right end, nothing but blanks before the first.
  std::string graphOf(const MachineLine& line, std::size_t columns, bool unicode) const;

 private:
  struct Past {
    double seconds;  // since the sample before
    std::vector<MachineLine> lines;
  };
  std::deque<Past> past_;
  std::size_t taken_ = 0;
};

// The means of so many values together each, the newest last; `taken`: how many there were ever, so that a
// value stays among its neighbours as others come.
std::vector<std::optional<double>> means(const std::vector<std::optional<double>>& values, std::size_t taken,
                                         std::size_t together);

}  // namespace volorn::ctl
