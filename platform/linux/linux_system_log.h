#pragma once

#include "platform/system_log.h"

namespace volorn::linux_host {

// syslog(3), which journald hears. Lines go to standard error as well when that is a terminal, and instead
// when nothing listens for syslog. A line that finds neither is dropped.
class LinuxSystemLog : public SystemLog {
 public:
  // `identity` is kept as a pointer and goes before each line in syslog.
  explicit LinuxSystemLog(const char* identity);
  ~LinuxSystemLog() override;
  LinuxSystemLog(const LinuxSystemLog&) = delete;
  LinuxSystemLog& operator=(const LinuxSystemLog&) = delete;

  void write(std::string_view text) override;

 private:
  bool to_syslog_;
  bool to_standard_error_;
};

}  // namespace volorn::linux_host
