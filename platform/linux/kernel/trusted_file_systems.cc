#include "platform/linux/kernel/trusted_file_systems.h"

#include <fcntl.h>
#include <linux/nsfs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string_view>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/parse_mountinfo.h"
#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {
namespace {

// Whether none but this user namespace's root may mount where the process sees it.
bool isViewOfOurUsers(int process_folder) {
  const FileDescriptor view(openat(process_folder, "ns/mnt", O_RDONLY | O_CLOEXEC));
  const FileDescriptor owner(view ? ioctl(view.get(), NS_GET_USERNS) : -1);
  struct stat of_view = {};
  struct stat of_this = {};
  return owner && fstat(owner.get(), &of_view) == 0 && stat("/proc/self/ns/user", &of_this) == 0 &&
         of_view.st_ino == of_this.st_ino && of_view.st_dev == of_this.st_dev;
}

}  // namespace

TrustedFileSystems::TrustedFileSystems() : memory_files_minor_(0) {
  const FileDescriptor file(memfd_create("", MFD_CLOEXEC));
  struct stat status = {};
  if (fstat(file.get(), &status) == 0) memory_files_minor_ = minor(status.st_dev);
}

bool TrustedFileSystems::has(int process_folder, std::uint32_t device_major, std::uint32_t device_minor,
                             std::uint64_t mount_id) {
  if (device_major != 0 || device_minor == memory_files_minor_) return true;
  const int error = isViewOfOurUsers(process_folder) ? buffer_.read(process_folder, "mountinfo")
                                                     : buffer_.read(AT_FDCWD, "/proc/self/mountinfo");
  if (error) return false;
  for (std::string_view text = buffer_.text(); !text.empty();) {
    const auto mounted = parseMount(takeLine(text));
    // Files of a btrfs bear another device than the mounted file system: they are known by the mount alone.
    const bool is_it = mounted && (mounted->mount_id == mount_id ||
                                   (mounted->device_major == 0 && mounted->device_minor == device_minor));
    if (is_it) return !mounted->type.starts_with("fuse");
  }
  return false;
}

}  // namespace volorn::linux_host
