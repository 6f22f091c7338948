#pragma once

#include <string>

#include "platform/date.h"
#include "volornctl/output.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {

// What a run of the program has around it.
struct Surroundings {
  Output& output;
  Output& errors;
  bool colour = false;          // on output
  std::string state_directory;  // as asked for; empty: the one in use, see state_choice.h
  Moment moment;
};

}  // namespace volorn::ctl
