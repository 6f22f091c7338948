#include "platform/linux/kernel/process_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace volorn::linux_host {
namespace {

// PID/FILE or PID/task/THREAD/FILE, without taking memory for it.
class Path {
 public:
  Path(std::int32_t pid, std::string_view file) : Path(pid) { append(file); }
  Path(std::int32_t pid, std::int32_t thread, std::string_view file) : Path(pid) {
    if (thread != pid) {
      append("task/");
      append(thread);
    }
    append(file);
  }
  const char* get() const { return text_.data(); }

 private:
  explicit Path(std::int32_t pid) { append(pid); }
  void append(std::int32_t number) {
    end_ = std::to_chars(end_, text_.end(), number).ptr;
    *end_++ = '/';
  }
  void append(std::string_view text) { end_ = std::ranges::copy(text, end_).out; }

  std::array<char, 64> text_ = {};
  char* end_ = text_.begin();
};

// By the file of the mark's thread, whose inode is known. One that is open stays the same thread's.
bool readRuns(const FileDescriptor& file, RunMark& mark) {
  std::array<char, 96> text = {};
  const ssize_t count = pread(file.get(), text.data(), text.size(), 0);
  const auto runs =
      count > 0 ? parseThreadRuns({text.data(), static_cast<std::size_t>(count)}) : std::nullopt;
  if (runs) mark.runs = *runs;
  return runs.has_value();
}

bool openMark(int folder, const char* path, RunMark& mark, FileDescriptor& file) {
  file = FileDescriptor(openat(folder, path, O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) return false;
  mark.inode = status.st_ino;
  return true;
}

}  // namespace

int ProcessFiles::folder() {
  if (!folder_) folder_ = FileDescriptor(open(proc_root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return folder_.get();
}

bool ProcessFiles::updateMarks(std::int32_t pid, std::span<RunMark> marks, std::span<FileDescriptor> held) {
  bool are_same = true;
  for (std::size_t i = 0; i < marks.size(); ++i) {
    RunMark now = {.thread = marks[i].thread, .inode = marks[i].inode};
    FileDescriptor file;
    const bool is_held = i < held.size() && held[i];
    const bool is_read = is_held ? readRuns(held[i], now)
                                 : openMark(folder(), Path(pid, now.thread, "schedstat").get(), now, file) &&
                                       readRuns(file, now);
    are_same = are_same && is_read && now == marks[i];
    marks[i] = now;
    if (is_held && !is_read) {
      held[i] = FileDescriptor();
    } else if (is_read && !is_held && i < held.size() && room_ > 0) {
      held[i] = std::move(file);
      --room_;
    }
  }
  return are_same;
}

std::string_view ProcessFiles::read(std::int32_t pid, std::string_view file) {
  buffer_.readRecord(folder(), Path(pid, file).get());
  return buffer_.text();
}

}  // namespace volorn::linux_host
