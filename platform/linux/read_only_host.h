#pragma once

#include <memory>

#include "platform/kernel.h"

namespace volorn::linux_host {

// Installs the Linux bindings of this machine, for as long as it lives, in a program that only reads it. No
// state file is looked at, there is no job, and log lines are dropped.
class ReadOnlyHost {
 public:
  // `kernel`: in place of this machine's own binding, for a caller who adds to it.
  explicit ReadOnlyHost(Kernel* kernel = nullptr);
  ~ReadOnlyHost();
  ReadOnlyHost(const ReadOnlyHost&) = delete;
  ReadOnlyHost& operator=(const ReadOnlyHost&) = delete;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace volorn::linux_host
