#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace volorn::ctl {

// The name that a misspelt word was most likely meant to be: the first of those that take the fewest letters
// put in, left out, replaced or swapped with their neighbour. None where that is more than a third of the
// word's letters, and one at least.
std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& names);

// "; did you mean NAME?", or nothing.
std::string hint(std::string_view word, const std::vector<std::string>& names);

}  // namespace volorn::ctl
