#include "platform/linux/state/note_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "platform/linux/state/lock_file.h"

namespace volorn::linux_host {
namespace {

constexpr const char* kNoteName = "volorn.note";
constexpr mode_t kNoteMode = 0600;

// What stands there: nothing is due, one mark is under way or was lost, or one was lost for certain: that
// before the one which is under way, or one that waited for it and is not to be forgotten with it.
enum Size : off_t { kNothingDue = 0, kOneDue = 1, kOneLost = 2, kWaitingLost = 3 };

[[noreturn]] void fail(int error) {
  throw std::system_error(error, std::generic_category(), kNoteName);
}

void setSize(int fd, Size size) {
  if (ftruncate(fd, size) != 0) fail(errno);
}

off_t sizeOf(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) fail(errno);
  return status.st_size;
}

}  // namespace

NoteFile::NoteFile(int folder_fd, std::int64_t patience_ms)
    : file_(openat(folder_fd, kNoteName, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kNoteMode)) {
  if (!file_) fail(errno);
  const int error = lockFile(file_.get(), patience_ms);
  if (error != 0) {
    setSize(file_.get(), kWaitingLost);
    fail(error);
  }
  some_lost_ = sizeOf(file_.get()) != kNothingDue;
  setSize(file_.get(), some_lost_ ? kOneLost : kOneDue);
}

void NoteFile::done() {
  if (sizeOf(file_.get()) != kWaitingLost) setSize(file_.get(), kNothingDue);
}

bool NoteFile::tellsOfLoss(int folder_fd) {
  struct stat status = {};
  if (fstatat(folder_fd, kNoteName, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (status.st_size == kNothingDue) return false;
  if (status.st_size != kOneDue) return true;
  const FileDescriptor file(openat(folder_fd, kNoteName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return !file || flock(file.get(), LOCK_SH | LOCK_NB) == 0;
}

}  // namespace volorn::linux_host
