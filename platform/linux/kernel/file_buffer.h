#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace volorn::linux_host {

// Reads one file of /proc after another into the same memory.
class FileBuffer {
 public:
  static constexpr std::size_t kLimitBytes = std::size_t{8} << 20;

  // Reads the file, opened as openRegularFile() does. Of a longer one no more than `most_bytes` are read.
  // Returns 0 or errno.
  int read(int folder_fd, const char* name, std::size_t most_bytes = kLimitBytes);

  // The same for less, for a file of the kernel's own making that it tells in one piece, as those of one
  // record are: `stat`, `statm`, `status`, `sched` and `comm`, but none that has a line for each of many
  // things.
  int readRecord(int folder_fd, const char* name);

  // What was read last. Empty after a failure.
  std::string_view text() const { return {bytes_.data(), size_}; }

 private:
  int fill(int file, std::size_t most_bytes, bool is_record);

  std::vector<char> bytes_ = std::vector<char>(16384);
  std::size_t size_ = 0;
};

}  // namespace volorn::linux_host
