// Compiled with the records of SQLite's own build: where that has times of 32 bits, so has this file.
#include "platform/linux/state/late_files.h"

#ifdef VOLORN_SQLITE_HAS_SHORT_TIMES

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace volorn::linux_host {
namespace {

static_assert(sizeof(time_t) == 4 && sizeof(off_t) == 8);

// Without times, which SQLite does not look at.
int lookAt(int folder, const char* name, int flags, struct stat* status) {
  struct statx found = {};
  if (statx(folder, name, flags, STATX_BASIC_STATS, &found) != 0) return -1;
  *status = {};
  status->st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
  status->st_ino = found.stx_ino;
  status->st_mode = found.stx_mode;
  status->st_nlink = found.stx_nlink;
  status->st_uid = found.stx_uid;
  status->st_gid = found.stx_gid;
  status->st_size = static_cast<off_t>(found.stx_size);
  return 0;
}

int lookAtFile(const char* path, struct stat* status) {
  return lookAt(AT_FDCWD, path, 0, status);
}

int lookAtLink(const char* path, struct stat* status) {
  return lookAt(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status);
}

int lookAtOpened(int file, struct stat* status) {
  return lookAt(file, "", AT_EMPTY_PATH, status);
}

void replaceCalls() {
  sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
  const auto replace = [&](const char* name, auto call) {
    vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(call));
  };
  replace("stat", lookAtFile);
  replace("lstat", lookAtLink);
  replace("fstat", lookAtOpened);
}

}  // namespace

void letSqliteSeeLateFiles() {
  [[maybe_unused]] static const bool once = (replaceCalls(), true);
}

}  // namespace volorn::linux_host

#else

namespace volorn::linux_host {
void letSqliteSeeLateFiles() {}
}  // namespace volorn::linux_host

#endif
