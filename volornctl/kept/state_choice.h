#pragma once

#include <string>

#include "volornctl/surroundings.h"

namespace volorn::ctl {

// The folder whose state file is to be read: `own`, unless it is empty or has no state file, else `system`.
// A state file that cannot be looked at counts as one, so that the reader tells why.
std::string stateDirectoryInUse(const std::string& own, const std::string& system);

// The folder that was asked for, else the one in use: that of a daemon started by this user, or the system's.
std::string stateDirectory(const Surroundings& surroundings);

}  // namespace volorn::ctl
