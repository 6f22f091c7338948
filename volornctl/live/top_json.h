#pragma once

#include <string>

#include "volornctl/live/process_list.h"
#include "volornctl/live/sample.h"

namespace volorn::ctl {

// One line, its end included, with the processes that are listed.
std::string topJson(const Sample& sample, const ProcessList& processes);

}  // namespace volorn::ctl
