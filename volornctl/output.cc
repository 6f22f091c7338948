#include "volornctl/output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace volorn::ctl {

void Output::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written_bytes = ::write(fd_, text.data(), text.size());
    if (written_bytes >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written_bytes));
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno == EAGAIN) {
      // A shell or a terminal shared with another program may have left it non-blocking.
      pollfd writable = {.fd = fd_, .events = POLLOUT, .revents = 0};
      poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "standard output");
    }
  }
}

void Output::waitUntil(std::chrono::steady_clock::time_point moment) {
  using std::chrono::milliseconds;
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(moment - std::chrono::steady_clock::now());
    if (left <= milliseconds(0)) return;
    pollfd ended = {.fd = fd_, .events = 0, .revents = 0};
    const auto timeout = std::min(left, milliseconds(std::numeric_limits<int>::max()));
    if (poll(&ended, 1, static_cast<int>(timeout.count())) > 0) throw OutputClosed();
  }
}

bool Output::isTerminal() const {
  return isatty(fd_) == 1;
}

Room Output::room() const {
  winsize size = {};
  const bool is_told = ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
  return is_told ? Room{size.ws_row, size.ws_col} : Room{24, 80};
}

}  // namespace volorn::ctl
