#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>

#include "waketide/signals.h"

namespace volorn::waketide {

// The one child that may be under way. When this process dies, however it dies, the kernel kills the child.
class ChildProcess {
 public:
  // Does `work` in a child with nothing on standard input; what `work` returns is the child's exit status.
  // False, with errno, when no process could be made for it.
  bool start(const std::function<int()>& work, const Signals& signals);

  bool runs() const { return pid_ > 0; }

  // The wait status of a child that has ended, once; none while it goes on.
  std::optional<int> takeEnd();

  // True when the child ended in time.
  bool endsWithin(std::chrono::milliseconds patience);

  void send(int signal) const;

 private:
  pid_t pid_ = 0;
};

}  // namespace volorn::waketide
