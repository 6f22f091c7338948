#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {

// More than any attribute of a device holds: the kernel gives each one page, of 64 KiB at most.
inline constexpr std::size_t kAttributeLimitBytes = 65536;

struct OpenedFile {
  FileDescriptor file;
  int error = 0;  // 0, or the errno that says why there is none
};

// Opens a regular file for reading; `name` is relative to the folder, which may be AT_FDCWD. A folder
// (EISDIR), a FIFO or a device (EINVAL) fails at once.
OpenedFile openRegularFile(int folder_fd, const char* name);

struct FileBytes {
  std::string bytes;
  int error = 0;  // 0, or the errno that kept the file from being read whole; then there are no bytes
};

// Reads a regular file to its end, opened as openRegularFile() does. A file of more than `limit_bytes` or
// without an end fails (EFBIG): nothing is ever cut. The size that the file states is not asked, since an
// attribute states 4096 bytes and one of /proc none.
FileBytes readFile(const std::string& path, std::size_t limit_bytes);

// The names in a folder in byte order, without "." and ".."; none for a folder that cannot be read.
std::vector<std::string> listFolder(const std::string& path);

}  // namespace volorn::linux_host
