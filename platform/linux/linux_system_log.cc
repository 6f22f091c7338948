#include "platform/linux/linux_system_log.h"

#include <paths.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {
namespace {

// syslog(3) itself does not tell whether anyone hears it.
bool somethingListens() {
  if (access(_PATH_LOG, W_OK) != 0) return false;
  const FileDescriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof _PATH_LOG <= sizeof address.sun_path);
  std::memcpy(address.sun_path, _PATH_LOG, sizeof _PATH_LOG);
  if (!probe) return false;
  // A log socket of the stream kind refuses a datagram one in its own way.
  return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno == EPROTOTYPE;
}

}  // namespace

LinuxSystemLog::LinuxSystemLog(const char* identity)
    : to_syslog_(somethingListens()), to_standard_error_(!to_syslog_ || isatty(STDERR_FILENO) == 1) {
  // Connected now, while the process has all its rights.
  if (to_syslog_) openlog(identity, LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

LinuxSystemLog::~LinuxSystemLog() {
  if (to_syslog_) closelog();
}

void LinuxSystemLog::write(std::string_view text) {
  // One of SQLite's or with a path in it may hold a newline, behind which it would pass for another line.
  std::string line(text);
  std::ranges::replace_if(
      line, [](unsigned char c) { return c < ' ' || c == 0x7F; }, ' ');
  if (to_syslog_) syslog(LOG_NOTICE, "%.*s", static_cast<int>(line.size()), line.data());
  if (!to_standard_error_) return;
  // In one piece, so that lines of several processes do not mix.
  line += '\n';
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) return;
}

}  // namespace volorn::linux_host
