#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "platform/linux/kernel/parse_elf.h"
#include "platform/linux/kernel/trusted_file_systems.h"

namespace volorn::linux_host {

// Device (major, minor), inode, time of change (seconds, nanoseconds).
using FileIdentity = std::array<std::uint64_t, 5>;

// Which file a process executes.
struct Executable {
  int error = 0;  // 0, or errno: ENOENT for a process without one, EACCES for a reader without the right
  FileIdentity identity = {};
};

// Of the process whose folder of /proc is open. The file's own file system is not asked: that might let us
// wait for ever.
Executable findExecutable(int process_folder);

// Tells the build ids of processes' executables, and remembers them by device, inode and time of change. For
// one thread at a time.
//
// An executable may be any user's writing, on a file system of his own. What is not on a trusted one is not
// opened. The kernel's mapping query would be no way around: asked for a build id it reads the file as well.
class BuildIds {
 public:
  // Of the executable of the process whose folder of /proc is open. Zeros for one without, and where it
  // cannot be read.
  BuildId of(const FileIdentity& executable, int process_folder);

 private:
  TrustedFileSystems file_systems_;
  std::map<FileIdentity, BuildId> known_;
};

}  // namespace volorn::linux_host
