#include "platform/linux/kernel/build_ids.h"

#include <fcntl.h>

#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/executable.h"
#include "platform/linux/kernel/file_status.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

// Enough for every program of a large machine; whoever starts more makes the reader forget, not grow.
constexpr std::size_t kMostKnown = 4096;

FileIdentity identityOf(const FileStatus& status) {
  return {status.device_major, status.device_minor, status.inode,
          static_cast<std::uint64_t>(status.changed_seconds), status.changed_nanoseconds};
}

}  // namespace

Executable findExecutable(int process_folder) {
  FileStatus status;
  const int error = readFileStatus(process_folder, "exe", 0, status);
  return {.error = error, .identity = error ? FileIdentity{} : identityOf(status)};
}

BuildId BuildIds::of(const FileIdentity& executable, int process_folder) {
  if (const auto found = known_.find(executable); found != known_.end()) return found->second;
  // The place of the file is held before it is looked at, so that what is opened is what has been looked at:
  // a process may execute another file at any time.
  const FileDescriptor place(openat(process_folder, "exe", O_PATH | O_CLOEXEC));
  FileStatus status;
  if (!place || readFileStatus(place.get(), "", AT_EMPTY_PATH, status) != 0 || !status.is_regular ||
      !file_systems_.has(process_folder, status.device_major, status.device_minor, status.mount_id)) {
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
