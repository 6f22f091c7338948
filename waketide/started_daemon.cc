#include "waketide/started_daemon.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

constexpr int kNotExecuted = 127;

[[noreturn]] void become(const std::string& path, const Signals& signals, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have died before the kernel was told.
  if (getppid() != parent) _exit(kNotExecuted);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing >= 0) dup2(nothing, STDIN_FILENO);
  signals.restore();
  std::string name = path;
  char* arguments[] = {name.data(), nullptr};
  execv(path.c_str(), arguments);
  tell(path + ": " + std::strerror(errno));
  _exit(kNotExecuted);
}

}  // namespace

bool StartedDaemon::start(const std::string& path, const Signals& signals) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) become(path, signals, parent);
  if (pid > 0) pid_ = pid;
  return pid > 0;
}

std::optional<int> StartedDaemon::takeEnd() {
  int status = 0;
  if (!runs() || waitpid(pid_, &status, WNOHANG) != pid_) return std::nullopt;
  pid_ = 0;
  return status;
}

bool StartedDaemon::endsWithin(std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + patience;
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  while (!takeEnd()) {
    const std::chrono::nanoseconds left = deadline - Clock::now();
    if (left.count() <= 0) return false;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec timeout = {.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
    sigtimedwait(&child, nullptr, &timeout);
  }
  return true;
}

void StartedDaemon::send(int signal) const {
  if (runs()) kill(pid_, signal);
}

}  // namespace volorn::waketide
