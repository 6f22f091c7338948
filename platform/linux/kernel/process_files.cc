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

bool readMark(int folder, const char* path, RunMark& mark) {
  const FileDescriptor file(openat(folder, path, O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  std::array<char, 96> text = {};
  const ssize_t count =
      file && fstat(file.get(), &status) == 0 ? read(file.get(), text.data(), text.size()) : 0;
  if (count <= 0) return false;
  const auto runs = parseThreadRuns({text.data(), static_cast<std::size_t>(count)});
  if (!runs) return false;
  mark.inode = status.st_ino;
  mark.runs = *runs;
  return true;
}

}  // namespace

int ProcessFiles::folder() {
  if (!folder_) folder_ = FileDescriptor(open(proc_root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return folder_.get();
}

bool ProcessFiles::updateMarks(std::int32_t pid, std::span<RunMark> marks) {
  bool are_same = true;
  for (RunMark& mark : marks) {
    RunMark now = {.thread = mark.thread};
    const bool is_known = readMark(folder(), Path(pid, mark.thread, "schedstat").get(), now);
    are_same = are_same && is_known && now == mark;
    mark = now;
  }
  return are_same;
}

std::string_view ProcessFiles::read(std::int32_t pid, std::string_view file) {
  buffer_.readRecord(folder(), Path(pid, file).get());
  return buffer_.text();
}

}  // namespace volorn::linux_host
