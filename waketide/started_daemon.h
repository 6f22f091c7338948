#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "waketide/signals.h"

namespace volorn::waketide {

// The one run of the daemon that may be under way. When this process dies, however it dies, the kernel kills
// the run.
class StartedDaemon {
 public:
  // Runs `path` without arguments and with nothing on standard input. False, with errno, when no process
  // could be made for it. A program that cannot be executed tells so itself and ends with status 127.
  bool start(const std::string& path, const Signals& signals);

  bool runs() const { return pid_ > 0; }

  // The wait status of a run that has ended, once; none while it goes on.
  std::optional<int> takeEnd();

  // True when the run ended in time.
  bool endsWithin(std::chrono::milliseconds patience);

  void send(int signal) const;

 private:
  pid_t pid_ = 0;
};

}  // namespace volorn::waketide
