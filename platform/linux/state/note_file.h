#pragma once

#include <cstdint>

#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {

// By the size of the file volorn.note in the state folder it is told that a mark was due and could not be
// kept, whatever kept it: another's lock, a full disk, a kill. It stands from before a mark is taken until
// that is kept. A size takes no space on the disk. Failures throw std::system_error.
class NoteFile {
 public:
  // In the folder that is open there; makes the file if it is missing, and takes turns with others who take a
  // mark. Who is not let in time has lost one, which is told before it is thrown.
  NoteFile(int folder_fd, std::int64_t patience_ms);

  // A mark before this one was lost.
  bool someLost() const { return some_lost_; }

  // This mark is kept, or none is due.
  void done();

  // For one who only looks, and holds the state file's lock: true when a mark was lost. Those of marks that
  // are under way are not.
  static bool tellsOfLoss(int folder_fd);

 private:
  FileDescriptor file_;
  bool some_lost_ = false;
};

}  // namespace volorn::linux_host
