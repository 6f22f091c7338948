#pragma once

#include <string>
#include <vector>

namespace volorn::fake {

// What was asked of the host, in order: the call's name and what tells it from others of its name.
using CallJournal = std::vector<std::string>;

}  // namespace volorn::fake
