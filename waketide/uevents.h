#pragma once

#include "platform/linux/file_descriptor.h"

namespace volorn::waketide {

// The kernel's own events of devices, which everyone may hear. Whoever forges one costs us a look.
class Uevents {
 public:
  // Without a descriptor where the kernel refuses: then nothing is ever heard.
  Uevents();

  // Readable when there are some; negative for none.
  int fd() const { return fd_.get(); }

  enum class Heard { kNothing, kPowerSupply, kTooMany };

  // Takes what came since, without waiting, and tells of power supplies, or that some are lost.
  Heard take();

 private:
  linux_host::FileDescriptor fd_;
};

}  // namespace volorn::waketide
