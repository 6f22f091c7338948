#include "platform/linux/kernel/file_buffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {

int FileBuffer::read(int folder_fd, const char* name, std::size_t most_bytes) {
  size_ = 0;
  const OpenedFile opened = openRegularFile(folder_fd, name);
  if (opened.error) return opened.error;
  return fill(opened.file.get(), most_bytes, false);
}

int FileBuffer::readRecord(int folder_fd, const char* name) {
  size_ = 0;
  const FileDescriptor file(openat(folder_fd, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  return file ? fill(file.get(), kLimitBytes, true) : errno;
}

int FileBuffer::fill(int file, std::size_t most_bytes, bool is_record) {
  std::size_t filled = 0;
  for (bool is_whole = false; !is_whole && filled < most_bytes;) {
    if (filled == bytes_.size()) bytes_.resize(2 * filled);
    const std::size_t room = std::min(bytes_.size(), most_bytes) - filled;
    const ssize_t count = ::read(file, bytes_.data() + filled, room);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    filled += static_cast<std::size_t>(count);
    is_whole = count == 0 || (is_record && static_cast<std::size_t>(count) < room);
  }
  size_ = filled;
  return 0;
}

}  // namespace volorn::linux_host
