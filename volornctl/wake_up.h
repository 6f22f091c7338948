#pragma once

#include <functional>
#include <thread>

#include "platform/linux/file_descriptor.h"

namespace volorn::ctl {

// By which one thread wakes another that waits for descriptors.
class WakeUp {
 public:
  // Throws std::system_error.
  WakeUp();

  int fd() const { return event_.get(); }  // readable once it was called
  void call();
  void clear();

 private:
  linux_host::FileDescriptor event_;
};

// Starts a thread that no signal interrupts but those of its own faults: they are the main thread's, who
// gives the terminal back.
std::thread startThread(std::function<void()> work);

}  // namespace volorn::ctl
