#pragma once

#include <cstdint>

#include "platform/linux/kernel/file_buffer.h"

namespace volorn::linux_host {

// Tells whether a file may be read without waiting for a program of some user's. Behind a file system that
// users can mount stands such a program, and reading there, by whomever, takes as long as it likes. None of
// the answers comes from the file system itself.
class TrustedFileSystems {
 public:
  TrustedFileSystems();

  // By what statx() says of a file that a process has, whose folder of /proc is open. A file system without a
  // block device is trusted where it is mounted, and not as FUSE, in the process's view of the files. If that
  // is of a user's own making, it must be in this process's view.
  bool has(int process_folder, std::uint32_t device_major, std::uint32_t device_minor,
           std::uint64_t mount_id);

 private:
  FileBuffer buffer_;
  std::uint32_t memory_files_minor_;  // device of what memfd_create() makes, which is mounted nowhere
};

}  // namespace volorn::linux_host
