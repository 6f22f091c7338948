#include "volornctl/wake_up.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>
#include <utility>

namespace volorn::ctl {

WakeUp::WakeUp() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void WakeUp::call() {
  const std::uint64_t one = 1;
  // It fails where it has been called more often than it can count: it is readable all the same.
  [[maybe_unused]] const ssize_t written = write(event_.get(), &one, sizeof one);
}

void WakeUp::clear() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(event_.get(), &count, sizeof count);
}

std::thread startThread(std::function<void()> work) {
  sigset_t kept_out;
  sigset_t before;
  sigfillset(&kept_out);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
    sigdelset(&kept_out, fault);
  }
  pthread_sigmask(SIG_SETMASK, &kept_out, &before);
  std::thread thread(std::move(work));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace volorn::ctl
