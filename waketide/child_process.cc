#include "waketide/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace volorn::waketide {
bool ChildProcess::start(const std::function<int()>& work, const Signals& signals) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have died before the kernel was told.
    if (getppid() != parent) _exit(EXIT_FAILURE);
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
    signals.restore();
    _exit(work());
  }
  if (pid > 0) pid_ = pid;
  return pid > 0;
}

std::optional<int> ChildProcess::takeEnd() {
  int status = 0;
  if (!runs() || waitpid(pid_, &status, WNOHANG) != pid_) return std::nullopt;
  pid_ = 0;
  return status;
}

bool ChildProcess::endsWithin(std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + patience;
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  while (!takeEnd()) {
    const std::chrono::nanoseconds left = deadline - Clock::now();
    if (left.count() <= 0) return false;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec timeout = {.tv_sec = seconds.count(),
                              .tv_nsec = static_cast<long>((left - seconds).count())};
    sigtimedwait(&child, nullptr, &timeout);
  }
  return true;
}

void ChildProcess::send(int signal) const {
  if (runs()) kill(pid_, signal);
}

}  // namespace volorn::waketide
