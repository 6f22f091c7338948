#include "waketide/state_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/linux/state/schema.h"

namespace volorn::waketide {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Folders that come and go while we look are somebody's game.
constexpr int kMostRounds = 16;

}  // namespace

StateWatch::StateWatch(const std::string& directory) : directory_(fs::absolute(directory)) {
  if (!directory_.has_filename()) directory_ = directory_.parent_path();  // it ended in a slash
}

int StateWatch::refresh() {
  // A user has but a few of these, and the others may be done with theirs since.
  if (!fd_) fd_ = linux_host::FileDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fd_) return errno;
  for (int round = 0; round < kMostRounds; ++round) {
    fs::path folder = directory_;
    std::string name = linux_host::kStateFileName;
    while (!watch(folder)) {
      if (errno != ENOENT && errno != ENOTDIR) return errno;
      name = folder.filename();
      folder = folder.parent_path();
    }
    name_ = name;
    // The folder below may have come before its parent was watched.
    struct stat status = {};
    if (folder == directory_ || stat((folder / name).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return 0;
    }
  }
  return EAGAIN;
}

bool StateWatch::watch(const fs::path& folder) {
  const int watched = inotify_add_watch(fd_.get(), folder.c_str(), kEvents);
  if (watched < 0) return false;
  // A folder that is still the same keeps its number.
  if (watched_ >= 0 && watched != watched_) inotify_rm_watch(fd_.get(), watched_);
  watched_ = watched;
  return true;
}

bool StateWatch::take() {
  bool concerns_us = false;
  alignas(inotify_event) char buffer[16 * 1024];
  ssize_t size = 0;
  while ((size = read(fd_.get(), buffer, sizeof buffer)) > 0) {
    std::size_t offset = 0;
    while (offset < static_cast<std::size_t>(size)) {
      inotify_event event = {};
      std::memcpy(&event, buffer + offset, sizeof event);
      const std::string_view name = event.len > 0 ? buffer + offset + sizeof event : "";
      offset += sizeof event + event.len;
      const bool of_watched = event.wd == watched_ || (event.mask & IN_Q_OVERFLOW) != 0;
      // Without a name it tells of the folder itself. The journal is no concern of ours: a commit writes the
      // file as well, and root's SQLite changes the journal's owner even to read, which would wake us for
      // ever.
      if (of_watched && (name.empty() || name == name_)) concerns_us = true;
    }
  }
  return concerns_us;
}

}  // namespace volorn::waketide
