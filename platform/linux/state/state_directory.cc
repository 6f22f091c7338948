#include "platform/linux/state/state_directory.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <system_error>
#include <vector>

#include "platform/linux/state/lock_file.h"
#include "platform/linux/state/schema.h"

namespace volorn::linux_host {
namespace {

constexpr const char* kLockName = "volorn.lock";
constexpr const char* kJournalName = "volorn.db-journal";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kStateFileMode = 0640;
constexpr mode_t kLockMode = 0600;

// What the two files are to need at most: 4,000 snapshots take 1.3 MiB, a run puts back a few dozen pages.
constexpr off_t kStateFileBytes = 1536 * 1024;
constexpr off_t kJournalBytes = 256 * 1024;

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

void syncDirectory(const std::string& path) {
  const FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) fsync(directory.get());
}

// As mkdir -p does; returns the first error that may matter, or 0. Each new folder is made durable in its
// parent: a commit into a folder that a power cut takes away would be no commit.
int makeDirectories(const std::string& path) {
  int first_error = 0;
  std::size_t end = 0;
  do {
    end = path.find('/', end + 1);
    const std::string folder = path.substr(0, end);
    if (mkdir(folder.c_str(), kDirectoryMode) == 0) {
      syncDirectory(folder.substr(0, folder.rfind('/') + 1));
    } else if (errno != EEXIST && first_error == 0) {
      // Not the end yet: some file systems answer so for a folder that exists.
      first_error = errno;
    }
  } while (end != std::string::npos);
  return first_error;
}

FileDescriptor openDirectory(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  FileDescriptor directory(::open(path.c_str(), kFlags));
  if (!directory && errno == ENOENT) {
    const int error = makeDirectories(path);
    directory = FileDescriptor(::open(path.c_str(), kFlags));
    if (!directory && error != 0) fail(path, error);
  }
  if (!directory) fail(path);
  return directory;
}

void becomeOwnerOf(int directory, const std::string& path) {
  if (geteuid() != 0) return;
  struct stat status = {};
  if (fstat(directory, &status) != 0) fail(path);
  // The group first: a user who is not root may not change it.
  if (status.st_gid != getegid() && setegid(status.st_gid) != 0) fail(path + ": its group");
  if (status.st_uid == 0) return;
  // Another user's process forgets the signal that it is to get when its parent dies.
  int parent_death_signal = 0;
  prctl(PR_GET_PDEATHSIG, &parent_death_signal);
  if (seteuid(status.st_uid) != 0) fail(path + ": its owner");
  prctl(PR_SET_PDEATHSIG, parent_death_signal);
}

// Beyond its end, where nobody who reads the file meets it. What is asked for is there whole or not taken at
// all.
void holdSpaceFor(int directory, const std::string& name, off_t bytes) {
  struct stat status = {};
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  const off_t missing_bytes = bytes - status.st_blocks * 512;
  if (missing_bytes <= 0) return;
  struct statvfs disk = {};
  if (fstatvfs(directory, &disk) != 0) return;
  if (disk.f_bavail < static_cast<std::uint64_t>(missing_bytes) / disk.f_frsize + 1) return;
  const FileDescriptor file(openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file && fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, bytes) != 0) return;
}

// Takes nothing of the file but what it holds beyond its end.
void releaseSpaceOf(int directory, const std::string& name) {
  const FileDescriptor file(openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (file && fstat(file.get(), &status) == 0 && ftruncate(file.get(), status.st_size) != 0) return;
}

std::string canonical(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), std::free);
  if (!resolved) fail(path);
  return resolved.get();
}

std::string utcStamp(const Date& date) {
  const auto seconds = static_cast<time_t>(date.secondsSince1970());
  tm utc = {};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

}  // namespace

std::string stateDirectoryOf(uid_t user) {
  struct stat status = {};
  if (user == 0 || (stat(kSystemStateDirectory, &status) == 0 && status.st_uid == user)) {
    return kSystemStateDirectory;
  }
  std::vector<char> buffer(16 * 1024);
  passwd entry = {};
  passwd* found = nullptr;
  while (getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return found && entry.pw_dir[0] == '/' ? std::string(entry.pw_dir) + "/.local/state/volorn" : std::string();
}

std::string StateDirectory::describe() const {
  return path_.empty() ? kStateFileName : path_ + "/" + kStateFileName;
}

int StateDirectory::open() {
  if (directory_) return directory_.get();
  if (path_.empty()) fail("this user has no home folder", ENOENT);
  FileDescriptor directory = openDirectory(path_);
  becomeOwnerOf(directory.get(), path_);
  directory_ = std::move(directory);
  return directory_.get();
}

void StateDirectory::enter() {
  if (lock_) return;
  open();
  takeLock();
  makeStateFile();
  state_file_path_ = canonical(path_) + "/" + kStateFileName;
}

void StateDirectory::takeLock() {
  const std::string path = path_ + "/" + kLockName;
  // Reading is all that a lock needs, and it works where writing would not.
  FileDescriptor lock(openat(directory_.get(), kLockName,
                             O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kLockMode));
  if (!lock) fail(path);
  const int error = lockFile(lock.get(), patience_ms_);
  if (error == ETIMEDOUT) fail(path + ": another run holds it", error);
  if (error != 0) fail(path, error);
  lock_ = std::move(lock);
}

void StateDirectory::makeStateFile() {
  const std::string path = describe();
  struct stat status = {};
  if (fstatat(directory_.get(), kStateFileName, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISREG(status.st_mode)) fail(path + ": not a regular file", EINVAL);
    return;
  }
  if (errno != ENOENT) fail(path);
  // Made here and not by SQLite, so that it never has another mode.
  const FileDescriptor file(openat(directory_.get(), kStateFileName,
                                   O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kStateFileMode));
  if (!file) fail(path);
}

void StateDirectory::holdSpace() {
  // The journal first: what is left may be enough for it alone, and it is in use on every day.
  holdSpaceFor(directory_.get(), kJournalName, kJournalBytes);
  holdSpaceFor(directory_.get(), kStateFileName, kStateFileBytes);
}

void StateDirectory::setStateFileAside(const Date& now) {
  const std::string name = kStateFileName;
  std::string aside = kSetAsidePrefix + utcStamp(now);
  const std::string base = aside;
  const auto exists = [this](const std::string& candidate) {
    struct stat status = {};
    return fstatat(directory_.get(), candidate.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  };
  for (int n = 2; exists(aside) || exists(aside + "-journal"); ++n) aside = base + "-" + std::to_string(n);
  // The journal first: SQLite deletes one that it finds beside a new file.
  const int directory = directory_.get();
  const std::string journal = kJournalName;
  if (renameat(directory, journal.c_str(), directory, (aside + "-journal").c_str()) != 0 && errno != ENOENT) {
    fail(path_ + "/" + journal);
  }
  releaseSpaceOf(directory, aside + "-journal");
  if (renameat(directory, name.c_str(), directory, aside.c_str()) != 0) fail(path_ + "/" + name);
  releaseSpaceOf(directory, aside);
  fsync(directory);
  makeStateFile();
}

}  // namespace volorn::linux_host
