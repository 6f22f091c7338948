#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// A mounted file system.
struct MountedFileSystem {
  std::uint64_t mount_id = 0;
  std::uint32_t device_major = 0;
  std::uint32_t device_minor = 0;
  std::string_view type;
};

// A line of /proc/PID/mountinfo:
//   36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue
// None for what is no such line. Blanks in paths are written as \040.
std::optional<MountedFileSystem> parseMount(std::string_view line);

}  // namespace volorn::linux_host
