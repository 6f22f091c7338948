#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include "volornctl/live/sample.h"

namespace volorn::ctl {

enum class Parse { kAll, kHead };  // kHead: without the processes, in a hundredth of the time

// The sample that a line of `top --json` tells. None where it is no such line.
std::optional<Sample> sampleOfLine(std::string_view line, Parse parse = Parse::kAll);

}  // namespace volorn::ctl
