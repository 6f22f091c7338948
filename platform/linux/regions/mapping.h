#pragma once

#include <cstdint>

namespace volorn::linux_host {

inline constexpr std::uint32_t kProtectionRead = 1;  // beside kProtectionWrite and kProtectionExecute

// Which file a mapping shows, whatever names it has or has lost. None of either for anonymous memory; a
// segment of shared memory may have the inode 0, on a device.
struct FileId {
  std::uint64_t device = 0;  // major number above, minor number in the low 32 bits
  std::uint64_t inode = 0;

  bool operator==(const FileId&) const = default;
  bool operator<(const FileId& other) const {
    return device != other.device ? device < other.device : inode < other.inode;
  }
};

// A mapping of a process as the kernel keeps it, with its pages counted.
struct Mapping {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint32_t protection = 0;  // as ProcessRegion::protection
  bool is_shared = false;        // what is written into it, others see
  bool has_huge_pages = false;   // of hugetlb; nowhere in the kernel's figures are they resident
  bool is_swapped = false;       // partly, at least
  std::uint64_t file_offset_bytes = 0;
  FileId file;
  std::uint64_t private_pages = 0;  // resident, and mapped nowhere else
  std::uint64_t shared_pages = 0;   // resident, and mapped a second time: by another process or by this one

  bool isAnonymous() const { return file == FileId(); }
};

}  // namespace volorn::linux_host
