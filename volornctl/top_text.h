#pragma once

#include <optional>
#include <string>
#include <vector>

#include "volornctl/output.h"
#include "volornctl/top_figures.h"

namespace volorn::ctl {

// One line, its end included.
std::string topJson(const TopFigures& figures);

// The machine's figures, an empty line, a row of headings and a row for each process, as much of it as there
// is room for. A rate that is not known is a dash.
std::vector<std::string> topLines(const TopFigures& figures, const std::optional<Room>& room, bool colour);

}  // namespace volorn::ctl
