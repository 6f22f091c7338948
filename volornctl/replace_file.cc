#include "volornctl/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/state/lock_file.h"

namespace volorn::ctl {
namespace {

using linux_host::FileDescriptor;

constexpr mode_t kMode = 0644;
constexpr std::int64_t kPatienceMs = 10'000;

struct Place {
  std::string folder;
  std::string name;
};

Place placeOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

class Replacement {
 public:
  explicit Replacement(const std::string& path)
      : path_(path), place_(placeOf(path)), draft_name_("." + place_.name + ".new") {}

  void make(std::string_view content) {
    folder_ = FileDescriptor(open(place_.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder_) fail();
    checkTarget();
    while (!takeDraft()) {
    }
    try {
      fill(content);
      if (renameat(folder_.get(), draft_name_.c_str(), folder_.get(), place_.name.c_str()) != 0) fail();
    } catch (const std::system_error&) {
      unlinkat(folder_.get(), draft_name_.c_str(), 0);
      throw;
    }
    if (fsync(folder_.get()) != 0) fail();
  }

 private:
  [[noreturn]] void fail(int error = errno) const {
    throw std::system_error(error, std::generic_category(), path_);
  }

  void checkTarget() const {
    struct stat status = {};
    const bool names_folder = place_.name.empty();
    if (!names_folder && fstatat(folder_.get(), place_.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) fail();
    } else if (!S_ISREG(status.st_mode)) {
      throw std::runtime_error(path_ + ": not a regular file");
    }
  }

  // The draft's lock is held by who writes it: one that is there and can be locked is what a killed writer
  // left. It is only removed and never written, as it may be a link to another's file. False to try again.
  bool takeDraft() {
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    draft_ =
        FileDescriptor(openat(folder_.get(), draft_name_.c_str(), kFlags | O_RDWR | O_CREAT | O_EXCL, 0600));
    const bool is_ours = static_cast<bool>(draft_);
    if (!is_ours && errno != EEXIST) fail();
    if (!is_ours) draft_ = FileDescriptor(openat(folder_.get(), draft_name_.c_str(), kFlags | O_RDONLY));
    if (!draft_) {
      if (errno != ENOENT) fail();
      return false;
    }
    if (const int error = linux_host::lockFile(draft_.get(), kPatienceMs); error != 0) fail(error);
    // Before it was locked, another may have taken it for a killed one's, or finished it.
    if (!isInPlace()) return false;
    if (!is_ours && unlinkat(folder_.get(), draft_name_.c_str(), 0) != 0 && errno != ENOENT) fail();
    return is_ours;
  }

  bool isInPlace() const {
    struct stat named = {};
    struct stat opened = {};
    return fstatat(folder_.get(), draft_name_.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(draft_.get(), &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
  }

  void fill(std::string_view content) const {
    while (!content.empty()) {
      const ssize_t written_bytes = write(draft_.get(), content.data(), content.size());
      if (written_bytes < 0 && errno != EINTR) fail();
      if (written_bytes > 0) content.remove_prefix(static_cast<std::size_t>(written_bytes));
    }
    struct stat folder = {};
    if (fstat(folder_.get(), &folder) != 0) fail();
    const bool is_root = geteuid() == 0;
    if (is_root && fchown(draft_.get(), folder.st_uid, folder.st_gid) != 0) fail();
    if (fchmod(draft_.get(), kMode) != 0 || fsync(draft_.get()) != 0) fail();
  }

  const std::string path_;
  const Place place_;
  const std::string draft_name_;
  FileDescriptor folder_;
  FileDescriptor draft_;
};

}  // namespace

void replaceFile(const std::string& path, std::string_view content) {
  Replacement(path).make(content);
}

}  // namespace volorn::ctl
