#include "platform/linux/kernel/numbered_entries.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <string_view>

namespace volorn::linux_host {
namespace {

// Calls `visit` with the name of each entry. The C library's own reader would take memory for each folder.
// Returns 0 or errno.
template <typename Visit>
int visitEntries(int folder_fd, Visit visit) {
  alignas(dirent) char buffer[32768];
  for (;;) {
    const long filled = syscall(SYS_getdents64, folder_fd, buffer, sizeof buffer);
    if (filled < 0) return errno;
    if (filled == 0) return 0;
    for (long at = 0; at < filled;) {
      const void* place = buffer + at;
      const auto* entry = static_cast<const dirent*>(place);
      visit(std::string_view(entry->d_name));
      at += entry->d_reclen;
    }
  }
}

}  // namespace

int listNumberedEntries(int folder_fd, std::vector<std::int32_t>& numbers) {
  numbers.clear();
  return visitEntries(folder_fd, [&](std::string_view name) {
    std::int32_t number = 0;
    const char* end = name.data() + name.size();
    const auto [stopped, error] = std::from_chars(name.data(), end, number);
    if (error == std::errc() && stopped == end && number > 0) numbers.push_back(number);
  });
}

std::int64_t countEntries(int folder_fd) {
  std::int64_t count = 0;
  const int error = visitEntries(folder_fd, [&](std::string_view name) {
    if (name != "." && name != "..") ++count;
  });
  return error ? -1 : count;
}

}  // namespace volorn::linux_host
