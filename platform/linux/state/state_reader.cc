#include "platform/linux/state/state_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_queries.h"

namespace volorn::linux_host {
namespace {

constexpr int kBusyTimeoutMs = 5'000;

using Reason = StateUnreadable::Reason;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw StateUnreadable(Reason::kRefused, path + ": " + why);
}

[[noreturn]] void refuseFor(int error, const std::string& path) {
  if (error == ENOENT) throw StateUnreadable(Reason::kNothingYet, path + ": no run has kept anything yet");
  refuse(path, error == EACCES ? "no right to read it; its owner and the members of its group have"
                               : std::strerror(error));
}

// The file's path without symbolic links, which SQLite is told not to follow.
std::string locate(const std::string& directory) {
  const std::string path = directory + "/" + kStateFileName;
  struct stat status = {};
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(directory.c_str(), nullptr), std::free);
  if (!resolved || lstat(path.c_str(), &status) != 0) refuseFor(errno, path);
  if (!S_ISREG(status.st_mode)) refuse(path, "not a regular file");
  if (access(path.c_str(), R_OK) != 0) refuseFor(errno, path);
  return std::string(resolved.get()) + "/" + kStateFileName;
}

[[noreturn]] void refuse(const std::string& path, const SqliteError& error) {
  switch (error.code()) {
    case SQLITE_READONLY:
      // A journal waits to be rolled back, which a reader may not do.
      throw StateUnreadable(Reason::kCutOff,
                            path + ": a run was cut off; the next start of the daemon will mend it");
    case SQLITE_BUSY:
      refuse(path, "a run is writing it and does not end; try again");
    default:
      refuse(path, error.tellsOfDamage() ? std::string("damaged (") + error.what() +
                                               "); the next start of the daemon will set it aside"
                                         : error.what());
  }
}

}  // namespace

template <typename Work>
auto StateReader::guarded(Work work) {
  try {
    return work();
  } catch (const SqliteError& error) {
    refuse(path_, error);
  }
}

StateReader::StateReader(const std::string& directory) : path_(locate(directory)) {
  guarded([this] {
    database_.emplace(path_, Database::Access::kReadOnly, kBusyTimeoutMs);
    database_->execute("BEGIN");
    switch (schemaOf(*database_)) {
      case Schema::kCurrent:
        return;
      case Schema::kEmpty:
        throw StateUnreadable(Reason::kNothingYet, path_ + ": no run has kept anything yet");
      case Schema::kNewer:
        refuse(path_, "written by a newer program");
      case Schema::kForeign:
        refuse(path_, "holds another program's data");
    }
  });
}

std::optional<PreferenceValue> StateReader::preference(std::string_view domain, std::string_view key) {
  return guarded([&] { return selectPreference(*database_, domain, key); });
}

std::optional<JobDescription> StateReader::job(std::string_view name) {
  return guarded([&] { return selectJob(*database_, name); });
}

std::optional<StoredSnapshot> StateReader::newestSnapshot() {
  std::vector<StoredSnapshot> snapshots = newestSnapshots(1);
  return snapshots.empty() ? std::nullopt : std::optional(std::move(snapshots.front()));
}

std::vector<StoredSnapshot> StateReader::newestSnapshots(std::int64_t limit) {
  return guarded([&] {
    std::vector<StoredSnapshot> snapshots;
    Statement newest = database_->prepare(
        "SELECT id, taken_at FROM (SELECT * FROM snapshot ORDER BY id DESC LIMIT ?) ORDER BY id");
    Statement metrics = database_->prepare(
        "SELECT name, value FROM metric JOIN metric_key ON id = key_id WHERE snapshot_id = ? ORDER BY "
        "position");
    newest.bind(1, std::min(limit, kSnapshotsKept));  // a file that holds more is not sound
    while (newest.step()) {
      StoredSnapshot& snapshot = snapshots.emplace_back(
          StoredSnapshot{.taken_at = Date::fromSecondsSinceReferenceDate(newest.real(1)), .metrics = {}});
      metrics.bind(1, newest.integer(0));
      while (metrics.step()) snapshot.metrics.emplace_back(metrics.text(0), metrics.integer(1));
    }
    return snapshots;
  });
}

}  // namespace volorn::linux_host
