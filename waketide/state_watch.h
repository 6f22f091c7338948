#pragma once

#include <filesystem>
#include <string>

#include "platform/linux/file_descriptor.h"

namespace volorn::waketide {

// Notices when the state file may have changed: it was written, replaced, removed, or made accessible, or its
// folder came, went or was exchanged. While the folder is missing, its nearest parent is watched instead. Not
// noticed: a parent of the existing folder that is renamed, and a file system mounted over it.
class StateWatch {
 public:
  explicit StateWatch(const std::string& directory);

  // Looks what there is to be watched now; changes after this call are noticed. 0, or the error number of why
  // nothing can be watched.
  int refresh();

  // Readable when something happened; negative when there is nothing to wait on.
  int fd() const { return fd_.get(); }

  // Takes what happened since; true when it may concern the state file. Never waits.
  bool take();

 private:
  bool watch(const std::filesystem::path& folder);

  std::filesystem::path directory_;
  linux_host::FileDescriptor fd_;
  int watched_ = -1;
  std::string name_;  // of the entry that concerns us in the watched folder
};

}  // namespace volorn::waketide
