#pragma once

#include <chrono>
#include <string>

namespace volorn::waketide {

struct ServeOptions {
  std::string state_directory;
  std::string daemon_path;
  std::chrono::seconds run_limit;  // a daemon that runs longer is killed
};

// Starts the daemon whenever its job falls due, until SIGTERM or SIGINT. What goes wrong on the way is told
// on standard error; std::system_error when there is no way to begin.
void serve(const ServeOptions& options);

}  // namespace volorn::waketide
