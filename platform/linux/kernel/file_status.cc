#include "platform/linux/kernel/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

namespace volorn::linux_host {
namespace {

constexpr unsigned kDoNotAsk = 0x4000;  // AT_STATX_DONT_SYNC
constexpr unsigned kType = 0x1;         // STATX_TYPE and so on
constexpr unsigned kChanged = 0x80;
constexpr unsigned kInode = 0x100;
constexpr unsigned kMountId = 0x1000;

struct Time {
  std::int64_t seconds;
  std::uint32_t nanoseconds;
  std::int32_t unused;
};

// The record of statx(2), which not every C library has.
struct Record {
  std::uint32_t told;
  std::uint32_t block_bytes;
  std::uint64_t attributes;
  std::uint32_t links;
  std::uint32_t user;
  std::uint32_t group;
  std::uint16_t mode;
  std::uint16_t unused;
  std::uint64_t inode;
  std::uint64_t bytes;
  std::uint64_t blocks;
  std::uint64_t attributes_mask;
  Time accessed;
  Time made;
  Time changed;
  Time modified;
  std::uint32_t special_device[2];
  std::uint32_t device_major;
  std::uint32_t device_minor;
  std::uint64_t mount_id;
  std::uint64_t later[13];
};
static_assert(sizeof(Record) == 256);

int askFileSystem(int folder, const char* name, int flags, FileStatus& status) {
  struct stat found = {};
  if (fstatat(folder, name, &found, flags) != 0) return errno;
  status = {.device_major = major(found.st_dev),
            .device_minor = minor(found.st_dev),
            .inode = found.st_ino,
            .changed_seconds = found.st_ctim.tv_sec,
            .changed_nanoseconds = static_cast<std::uint32_t>(found.st_ctim.tv_nsec),
            .is_regular = S_ISREG(found.st_mode)};
  return 0;
}

}  // namespace

int readFileStatus(int folder, const char* name, int flags, FileStatus& status) {
  Record found = {};
  const unsigned how = static_cast<unsigned>(flags) | kDoNotAsk;
  if (syscall(SYS_statx, folder, name, how, kType | kInode | kChanged | kMountId, &found) != 0) {
    return errno == ENOSYS ? askFileSystem(folder, name, flags, status) : errno;
  }
  status = {.device_major = found.device_major,
            .device_minor = found.device_minor,
            .inode = found.inode,
            .changed_seconds = found.changed.seconds,
            .changed_nanoseconds = found.changed.nanoseconds,
            .is_regular = S_ISREG(found.mode),
            .mount_id = found.told & kMountId ? found.mount_id : 0};
  return 0;
}

}  // namespace volorn::linux_host
