#include "platform/linux/read_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

namespace volorn::linux_host {
namespace {

// Calls again when a signal cut the call short.
template <typename Call>
auto withoutInterruption(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// 0 for a regular file, else the errno that says what it is.
int kindError(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) return errno;
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

}  // namespace

OpenedFile openRegularFile(int folder_fd, const char* name) {
  // Without O_NONBLOCK the opening of a FIFO would wait for a writer.
  OpenedFile opened{.file = FileDescriptor(withoutInterruption([&] {
                      return openat(folder_fd, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
                    })),
                    .error = 0};
  opened.error = opened.file ? kindError(opened.file.get()) : errno;
  if (opened.error) opened.file = FileDescriptor();
  return opened;
}

FileBytes readFile(const std::string& path, std::size_t limit_bytes) {
  const OpenedFile opened = openRegularFile(AT_FDCWD, path.c_str());
  if (opened.error) return {.bytes = {}, .error = opened.error};
  FileBytes result;
  char buffer[4096];  // what the kernel hands out at once of an attribute and of most files of /proc
  for (;;) {
    const ssize_t count = withoutInterruption([&] { return read(opened.file.get(), buffer, sizeof buffer); });
    if (count < 0) return {.bytes = {}, .error = errno};
    if (count == 0) return result;
    const auto size = static_cast<std::size_t>(count);
    if (size > limit_bytes - result.bytes.size()) return {.bytes = {}, .error = EFBIG};
    result.bytes.append(buffer, size);
  }
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
  if (!folder) return names;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace volorn::linux_host
