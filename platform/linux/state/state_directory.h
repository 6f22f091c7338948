#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

#include "platform/date.h"
#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {

// The folder of the whole system's daemon, which runs as root or as the folder's owner.
inline constexpr const char* kSystemStateDirectory = "/var/lib/volorn";

// The folder that a daemon of this user keeps its state in: the system's for root and for the owner of that
// folder, else one below the home folder of the password entry; empty when there is no such entry.
std::string stateDirectoryOf(uid_t user);

// How long a run waits for another one.
inline constexpr std::int64_t kRunPatienceMs = 45'000;

// The folder of the state file and the lock that makes runs serial. Failures throw std::system_error whose
// text names the path.
class StateDirectory {
 public:
  explicit StateDirectory(std::string path) : path_(std::move(path)) {}

  // Makes the folder if it is missing and opens it. Root goes on as the folder's owner and group, so that
  // nothing it leaves is out of their reach and no link of theirs can lead it astray. Returns the folder's
  // descriptor, which stays this object's. Opening again does nothing.
  int open();

  // Opens the folder, takes the lock, which then holds until this object ends, and makes sure that the state
  // file exists, if only with a length of 0. Entering again does nothing.
  void enter();

  // For the lock, and for whoever holds up the state file itself.
  std::int64_t patienceMs() const { return patience_ms_; }
  void setPatienceMs(std::int64_t patience_ms) { patience_ms_ = patience_ms; }

  // Sees to it that state file and journal hold the space on the disk that they will ever need, so that a
  // disk that others fill stops no run. Where there is no such space left nothing is taken, and the next run
  // tries again. Only between transactions: locks within the state file would be let go.
  void holdSpace();

  // Renames state file and journal to names that tell the time. Only after enter(), with the file closed.
  void setStateFileAside(const Date& now);

  // Empty before enter(). No part of the path is a symbolic link.
  const std::string& stateFilePath() const { return state_file_path_; }

  // What is to be told to people, known from the start.
  std::string describe() const;

 private:
  void makeStateFile();
  void takeLock();

  std::string path_;
  std::string state_file_path_;
  std::int64_t patience_ms_ = kRunPatienceMs;
  FileDescriptor directory_;
  FileDescriptor lock_;
};

}  // namespace volorn::linux_host
