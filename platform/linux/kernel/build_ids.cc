#include "platform/linux/kernel/build_ids.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/executable.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

// Enough for every program of a large machine; whoever starts more makes the reader forget, not grow.
constexpr std::size_t kMostKnown = 4096;

// Returns 0 or errno.
int ask(int folder, const char* name, int flags, struct statx& status) {
  const unsigned wanted = STATX_TYPE | STATX_INO | STATX_CTIME | STATX_MNT_ID;
  return statx(folder, name, flags | AT_STATX_DONT_SYNC, wanted, &status) == 0 ? 0 : errno;
}

FileIdentity identityOf(const struct statx& status) {
  return {status.stx_dev_major, status.stx_dev_minor, status.stx_ino,
          static_cast<std::uint64_t>(status.stx_ctime.tv_sec), status.stx_ctime.tv_nsec};
}

}  // namespace

Executable findExecutable(int process_folder) {
  struct statx status = {};
  const int error = ask(process_folder, "exe", 0, status);
  return {.error = error, .identity = error ? FileIdentity{} : identityOf(status)};
}

BuildId BuildIds::of(const FileIdentity& executable, int process_folder) {
  if (const auto found = known_.find(executable); found != known_.end()) return found->second;
  // The place of the file is held before it is looked at, so that what is opened is what has been looked at:
  // a process may execute another file at any time.
  const FileDescriptor place(openat(process_folder, "exe", O_PATH | O_CLOEXEC));
  struct statx status = {};
  if (!place || ask(place.get(), "", AT_EMPTY_PATH, status) != 0 || !S_ISREG(status.stx_mode) ||
      !file_systems_.has(process_folder, status.stx_dev_major, status.stx_dev_minor, status.stx_mnt_id)) {
    return {};
  }
  const std::string path = "/proc/self/fd/" + std::to_string(place.get());
  const OpenedFile opened = openRegularFile(AT_FDCWD, path.c_str());
  if (!opened.file) return {};
  const BuildId id = readBuildId(opened.file.get()).value_or(BuildId{});
  if (known_.size() >= kMostKnown) known_.clear();
  known_.emplace(identityOf(status), id);
  return id;
}

}  // namespace volorn::linux_host
