#include "platform/linux/state/lock_file.h"

#include <sys/file.h>

#include <cerrno>
#include <ctime>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kRetryMs = 5;

std::int64_t monotonicMs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

int lockFile(int fd, std::int64_t patience_ms) {
  const std::int64_t deadline_ms = monotonicMs() + patience_ms;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return errno;
    if (monotonicMs() >= deadline_ms) return ETIMEDOUT;
    const timespec pause = {.tv_sec = 0, .tv_nsec = kRetryMs * 1'000'000};
    nanosleep(&pause, nullptr);
  }
  return 0;
}

}  // namespace volorn::linux_host
