#include "platform/linux/state/state_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/linux/state/state_queries.h"
#include "platform/snapshot_keys.h"

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
std::string locate(const std::string& directory, const std::string& name) {
  const std::string path = directory + "/" + name;
  struct stat status = {};
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(directory.c_str(), nullptr), std::free);
  if (!resolved || lstat(path.c_str(), &status) != 0) refuseFor(errno, path);
  if (!S_ISREG(status.st_mode)) refuse(path, "not a regular file");
  if (access(path.c_str(), R_OK) != 0) refuseFor(errno, path);
  return std::string(resolved.get()) + "/" + name;
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

constexpr const char* kStandsIn =
    "EXISTS (SELECT * FROM stand_in s WHERE (s.snapshot_id, s.position) = (metric.snapshot_id, "
    "metric.position))";

// What stands in among the metrics of a snapshot from before this was kept.
std::vector<std::string> negativeReadings(const decltype(StoredSnapshot::metrics)& metrics) {
  using namespace snapshot_key;
  bool query_failed = false;  // which gives usage, standby and whether fully charged once, in this order
  std::vector<std::string> keys;
  for (const auto& [key, value] : metrics) {
    const bool is_time = key == kUsage || key == kStandby;
    query_failed |= is_time && value < 0;
    const bool is_negative = (is_time || key == kCharged) && value < 0;
    if (is_negative || (query_failed && key == kFullyChargedOnce)) keys.push_back(key);
  }
  return keys;
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

StateReader::StateReader(const std::string& directory, const std::string& name)
    : path_(locate(directory, name)) {
  guarded([this] {
    database_.emplace(path_, Database::Access::kReadOnly, kBusyTimeoutMs);
    database_->execute("BEGIN");
    const Schema schema = schemaOf(*database_);
    if (schema.kind == Schema::Kind::kNewer) refuse(path_, "written by a newer program");
    if (schema.kind == Schema::Kind::kForeign) refuse(path_, "holds another program's data");
    if (schema.version == 0) {
      throw StateUnreadable(Reason::kNothingYet, path_ + ": no run has kept anything yet");
    }
    has_usage_books_ = schema.version >= kUsageBooksVersion;
    if (schema.version >= kStandInsVersion) {
      first_with_stand_ins_ = database_->integer("SELECT first_with_stand_ins FROM file");
    }
  });
}

std::optional<std::string> StateReader::identity() {
  if (first_with_stand_ins_ == std::numeric_limits<std::int64_t>::max()) return std::nullopt;
  return guarded([&]() -> std::optional<std::string> {
    Statement select = database_->prepare("SELECT lower(hex(identity)) FROM file");
    return select.step() ? std::optional(select.text(0)) : std::nullopt;
  });
}

std::optional<PreferenceValue> StateReader::preference(std::string_view domain, std::string_view key) {
  return guarded([&] { return selectPreference(*database_, domain, key); });
}

std::optional<JobDescription> StateReader::job(std::string_view name) {
  return guarded([&] { return selectJob(*database_, name); });
}

std::optional<UsageBooks> StateReader::usageBooks() {
  if (!has_usage_books_) return std::nullopt;
  return guarded([&] { return selectUsageBooks(*database_); });
}

std::optional<StoredSnapshot> StateReader::newestSnapshot() {
  std::vector<StoredSnapshot> snapshots = newestSnapshots(1);
  return snapshots.empty() ? std::nullopt : std::optional(std::move(snapshots.front()));
}

std::vector<StoredSnapshot> StateReader::newestSnapshots(std::int64_t limit) {
  return guarded([&] {
    Statement newest = database_->prepare(
        "SELECT id, taken_at FROM (SELECT * FROM snapshot ORDER BY id DESC LIMIT ?) ORDER BY id");
    newest.bind(1, std::min(limit, kSnapshotsKept));  // a file that holds more is not sound
    return readSnapshots(newest);
  });
}

std::optional<StoredSnapshot> StateReader::snapshotAfter(std::int64_t id) {
  return guarded([&] {
    if (!next_)
      next_ = database_->prepare("SELECT id, taken_at FROM snapshot WHERE id > ? ORDER BY id LIMIT 1");
    std::vector<StoredSnapshot> found = readSnapshots(next_->bind(1, id));
    return found.empty() ? std::nullopt : std::optional(std::move(found.front()));
  });
}

std::vector<StoredSnapshot> StateReader::readSnapshots(Statement& which) {
  if (!metrics_) {
    const bool any_stand_ins = first_with_stand_ins_ < std::numeric_limits<std::int64_t>::max();
    metrics_ = database_->prepare(
        "SELECT name, value, " + std::string(any_stand_ins ? kStandsIn : "false") +
        " FROM metric JOIN metric_key ON id = key_id WHERE snapshot_id = ? ORDER BY position");
  }
  std::vector<StoredSnapshot> snapshots;
  while (which.step()) {
    StoredSnapshot& snapshot =
        snapshots.emplace_back(StoredSnapshot{.taken_at = Date::fromSecondsSinceReferenceDate(which.real(1)),
                                              .metrics = {},
                                              .id = which.integer(0)});
    metrics_->bind(1, snapshot.id);
    while (metrics_->step()) {
      const auto& [key, value] = snapshot.metrics.emplace_back(metrics_->text(0), metrics_->integer(1));
      if (metrics_->integer(2) != 0) snapshot.unknown.push_back(key);
    }
    if (snapshot.id < first_with_stand_ins_) snapshot.unknown = negativeReadings(snapshot.metrics);
  }
  return snapshots;
}

}  // namespace volorn::linux_host
