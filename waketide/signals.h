#pragma once

#include <signal.h>

#include <string>

#include "platform/linux/file_descriptor.h"

namespace volorn::waketide {

// "SIGSEGV", and "signal 40" for one without a name. The C library's own table is glibc's alone.
std::string signalName(int number);

// Takes SIGTERM, SIGINT and SIGCHLD over: they are blocked and read from a descriptor. Throws
// std::system_error.
class Signals {
 public:
  Signals();

  // Readable when one has come.
  int fd() const { return fd_.get(); }

  // Takes what has come since the last call, without waiting. True when SIGTERM or SIGINT was among it.
  bool takeStop();

  // What a child needs before exec.
  void restore() const;

  // While it lives, SIGTERM and SIGINT end this process at once with status 0: for work that may block, that
  // leaves nothing behind when it is cut off, and while no child runs.
  class EndAtOnce {
   public:
    EndAtOnce();
    ~EndAtOnce();
    EndAtOnce(const EndAtOnce&) = delete;
    EndAtOnce& operator=(const EndAtOnce&) = delete;
  };

 private:
  sigset_t mask_before_ = {};
  linux_host::FileDescriptor fd_;
};

}  // namespace volorn::waketide
