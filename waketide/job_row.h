#pragma once

#include <string>

#include "waketide/schedule.h"

namespace volorn::waketide {

struct JobRow {
  Row row;
  std::string trouble;  // why there is no row, for people; empty when there is one
};

// The daemon's row in the state file in `state_directory`. Waits up to 5 s for a daemon that commits.
JobRow readJobRow(const std::string& state_directory);

}  // namespace volorn::waketide
