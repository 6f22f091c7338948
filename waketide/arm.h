#pragma once

#include <string>

namespace volorn::waketide {

// Makes systemd's transient volorn.timer stand where the daemon is to be started next, and remembers under
// `runtime_directory`, which is made when it is missing, what the last run left. Waits as long as another
// process does the same. Throws std::runtime_error when the timer could not be made to stand there.
void arm(const std::string& state_directory, const std::string& runtime_directory);

}  // namespace volorn::waketide
