#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/kernel/parse_schedule.h"

namespace volorn::linux_host {

// What tells that a thread is still the same and has not run: its runs, and the inode of the file that tells
// them, which the kernel makes anew for another thread of the same number.
struct RunMark {
  std::int32_t thread = 0;
  std::uint64_t inode = 0;
  ThreadRuns runs = {};  // zeros: unknown, and then it tells nothing

  bool operator==(const RunMark&) const = default;
  bool isKnown() const { return runs != ThreadRuns(); }
};

// Reads small files of processes by their path from /proc, without opening a folder first. Marks are read
// over and over, so the files that tell them are held open as far as there is room: reading one again takes a
// fifth of opening it.
class ProcessFiles {
 public:
  explicit ProcessFiles(std::string proc_root) : proc_root_(std::move(proc_root)) {}

  // Puts the mark of each thread in place of the one that is there. Whether all are as they were. `held`: for
  // each mark its file, perhaps none yet; shorter where none is to be held.
  bool updateMarks(std::int32_t pid, std::span<RunMark> marks, std::span<FileDescriptor> held);

  // So many files more may be held.
  void setRoom(std::size_t files) { room_ = files; }

  // The text of a record of the process, until the next one is read; empty when it cannot be read.
  std::string_view read(std::int32_t pid, std::string_view file);

  // The folder of processes; negative when it cannot be opened.
  int folder();

 private:
  std::string proc_root_;
  FileDescriptor folder_;
  std::size_t room_ = 0;
  FileBuffer buffer_;
};

}  // namespace volorn::linux_host
