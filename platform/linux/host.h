#pragma once

#include <functional>

namespace volorn::linux_host {

// Does the daemon's work with the Linux bindings of this machine installed, and the state folder of the user
// that the process runs as. A state file that turns out to be damaged is set aside, and the work is done
// again, once, on a fresh one. Nothing is thrown: what goes wrong is told to the system log, and even a
// process out of memory ends with status 0.
void runOnThisMachine(const std::function<void()>& work);

}  // namespace volorn::linux_host
