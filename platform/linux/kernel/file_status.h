#pragma once

#include <cstdint>

namespace volorn::linux_host {

struct FileStatus {
  std::uint32_t device_major = 0;
  std::uint32_t device_minor = 0;
  std::uint64_t inode = 0;
  std::int64_t changed_seconds = 0;  // since 1970
  std::uint32_t changed_nanoseconds = 0;
  bool is_regular = false;
  std::uint64_t mount_id = 0;  // 0 before Linux 5.8, which no mount has
};

// What the kernel knows of a file without asking its file system, which might let us wait for ever; before
// Linux 4.11 it is asked. `flags` are those of fstatat(2). Returns 0 or errno.
int readFileStatus(int folder, const char* name, int flags, FileStatus& status);

}  // namespace volorn::linux_host
