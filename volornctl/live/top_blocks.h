#pragma once

#include <string>

#include "volornctl/live/process_list.h"
#include "volornctl/live/sample.h"
#include "volornctl/output.h"

namespace volorn::ctl {

// A sample as text: the machine's figures, an empty line, a row of headings, and a row for each process with
// all of its columns. A figure that is not known is a dash. No more than fits into the room, where one is
// given.
std::string topBlock(const Sample& sample, const ProcessList& processes, const UserNames& names,
                     const std::optional<Room>& room, bool colour);

// "2026-11-23 04:05:06 UTC, over 1.0 s"
std::string momentText(const Sample& sample);

}  // namespace volorn::ctl
