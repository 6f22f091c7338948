#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <utility>

// Page maps of 64-bit processes, clocks from 2038 on and the inodes of large disks: cmake/volorn.cmake asks
// for them.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8 && sizeof(time_t) == 8);

namespace volorn::linux_host {

// Owns a file descriptor; a negative one stands for none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace volorn::linux_host
