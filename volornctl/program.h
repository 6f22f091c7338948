#pragma once

#include "volornctl/surroundings.h"

namespace volorn::ctl {

enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNoData = 3,
};

// The whole program but for what it asks of its process. Results go to the output, all else to the errors; a
// closed output is no failure. Returns an ExitStatus, or what a check ends with.
int runProgram(int argc, const char* const* argv, Surroundings surroundings);

}  // namespace volorn::ctl
