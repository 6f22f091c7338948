#pragma once

#include <sys/ioctl.h>

#include <cstdint>

namespace volorn::linux_host {

// The mapping query of /proc/PID/maps, since Linux 6.11 (PROCMAP_QUERY), which the headers of older systems
// lack. Fails with ENOTTY where the kernel has no such query, ENOENT when no mapping answers, ESRCH when the
// process's memory is gone.
struct MappingQuery {
  static constexpr std::uint64_t kReadable = 1;  // of mapping_flags
  static constexpr std::uint64_t kWritable = 2;
  static constexpr std::uint64_t kExecutable = 4;
  static constexpr std::uint64_t kShared = 8;
  static constexpr std::uint64_t kCoveringOrNext =
      16;  // of query_flags: else only the one that holds the address

  std::uint64_t size_bytes = sizeof(MappingQuery);
  std::uint64_t query_flags = 0;
  std::uint64_t address = 0;
  // From here on the kernel answers.
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t mapping_flags = 0;
  std::uint64_t page_size_bytes = 0;  // hugetlb mappings have larger ones
  std::uint64_t file_offset_bytes = 0;
  std::uint64_t inode = 0;
  std::uint32_t device_major = 0;
  std::uint32_t device_minor = 0;
  // In: the room at the addresses below, 0 when not asked for. Out: the bytes filled, 0 when there is none.
  std::uint32_t name_bytes = 0;
  std::uint32_t build_id_bytes = 0;
  std::uint64_t name_address = 0;
  std::uint64_t build_id_address = 0;
};
static_assert(sizeof(MappingQuery) == 104);

// What ioctl(2) takes for a request: unsigned long in glibc, int in musl.
template <typename Request>
Request requestOf(int (*call)(int, Request, ...));
using IoctlRequest = decltype(requestOf(&ioctl));

inline constexpr auto kMappingQuery = static_cast<IoctlRequest>(_IOWR('f', 17, MappingQuery));

}  // namespace volorn::linux_host
