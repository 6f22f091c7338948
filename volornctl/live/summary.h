#pragma once

#include <string>

#include "snapshot/activity_summary.h"
#include "volornctl/command.h"

namespace volorn::ctl {

// The summary as it stands, entry by entry: a double that is no number, or infinite, is null.
std::string summaryJson(const ActivitySummary& summary);

// The figures of the machine by group, then a row for each process.
std::string summaryTable(const ActivitySummary& summary, bool colour);

class SummaryCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  bool json_ = false;
};

}  // namespace volorn::ctl
