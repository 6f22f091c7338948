#include "platform/linux/state/state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "platform/linux/state/schema.h"

namespace volorn::linux_host {
namespace {

// A reader holds its lock for milliseconds.
constexpr std::int64_t kReaderPatienceMs = 10'000;

// A check reads the whole file, which costs ten times the run and more.
constexpr double kCheckIntervalSeconds = 30.0 * 86400.0;
constexpr const char* kCheckTask = "integrity_check";

// In simulated power cuts the default journal mode lost commits; this one did not. Unlike a write-ahead log
// it opens for a reader who may not write the folder, and on a full disk.
constexpr const char* kPragmas =
    "PRAGMA journal_mode = PERSIST;"
    "PRAGMA synchronous = FULL;";

bool isWritable(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

}  // namespace

StateFile::StateFile(StateDirectory& directory, Clock& clock, SystemLog& log, OnDamage on_damage)
    : directory_(directory), clock_(clock), log_(log), on_damage_(on_damage) {}

bool StateFile::read(const std::function<void(Database&)>& work) {
  begin();
  return database_ && attempt([&] { work(*database_); });
}

bool StateFile::write(const std::function<void(Database&)>& work) {
  begin();
  return !lost_ && attempt([&] { work(*database_); });
}

void StateFile::begin() {
  if (!tried_) {
    tried_ = true;
    if (!attempt([this] { open(); })) return;
  }
  if (!database_ || lost_ || !database_->autocommits()) return;
  attempt([this] {
    database_->execute("BEGIN IMMEDIATE");
    ++transaction_;
    bringUpToDate();
  });
}

void StateFile::open() {
  directory_.enter();
  // SQLite takes a file of one byte for an empty one, and would write over it.
  struct stat status = {};
  if (stat(directory_.stateFilePath().c_str(), &status) == 0 && status.st_size == 1) {
    throw SqliteError(SQLITE_NOTADB, "file is not a database");
  }
  database_.emplace(directory_.stateFilePath(), Database::Access::kReadWrite,
                    static_cast<int>(std::min(kReaderPatienceMs, directory_.patienceMs())));
  // Looked at before anything is asked for that would change it, and locked once for all of it.
  database_->execute("BEGIN");
  schema_ = schemaOf(*database_);
  database_->execute("END");
  if (schema_.kind == Schema::Kind::kForeign)
    throw SqliteError(SQLITE_NOTADB, "it holds another program's data");
  if (schema_.kind == Schema::Kind::kNewer) {
    lose("it was written by a newer program, and is left as it is");
    database_.reset();
    return;
  }
  // SQLite opens a file for reading alone whose header asks for it, too.
  if (database_->isReadOnly() && isWritable(directory_.stateFilePath())) {
    throw SqliteError(SQLITE_CORRUPT, "its header lets nobody write");
  }
  database_->execute(kPragmas);
}

void StateFile::bringUpToDate() {
  if (transaction_ > 1) return;
  const double now = clock_.now().secondsSinceReferenceDate();
  upgradeSchema(*database_, schema_.version);
  if (schema_.version == 0) {
    database_->prepare("INSERT INTO upkeep VALUES (?, ?)").bind(1, kCheckTask).bind(2, now).run();
    return;
  }
  Statement last_check = database_->prepare("SELECT done_at FROM upkeep WHERE task = ?");
  const bool known = last_check.bind(1, kCheckTask).step();
  const double age_seconds = known ? now - last_check.real(0) : kCheckIntervalSeconds;
  last_check.reset();
  if (age_seconds >= 0.0 && age_seconds < kCheckIntervalSeconds) return;
  Statement check = database_->prepare("PRAGMA integrity_check(1)");
  if (check.step() && check.text(0) != "ok") throw SqliteError(SQLITE_CORRUPT, check.text(0));
  check.reset();
  database_->prepare("REPLACE INTO upkeep VALUES (?, ?)").bind(1, kCheckTask).bind(2, now).run();
}

bool StateFile::commit() {
  if (!database_ || lost_) return false;
  if (database_->autocommits()) return true;
  if (attempt([this] { database_->execute("COMMIT"); })) directory_.holdSpace();
  return !lost_;
}

bool StateFile::attempt(const std::function<void()>& step) {
  try {
    step();
    return true;
  } catch (const SqliteError& error) {
    // After a loss a table may be missing because it could not be made.
    if (error.tellsOfDamage() && on_damage_ == OnDamage::kThrow && !lost_) {
      database_.reset();
      throw StateFileDamaged(error.what());
    }
    lose(error.what());
  } catch (const std::system_error& error) {
    lose(error.what());
  }
  return false;
}

void StateFile::lose(const std::string& reason) {
  if (lost_) return;
  lost_ = true;
  log_.log("state file %s: %s; nothing of this run is kept", directory_.describe().c_str(), reason.c_str());
  if (!database_ || database_->autocommits()) return;
  try {
    database_->execute("ROLLBACK");
  } catch (const SqliteError&) {
    database_.reset();
  }
}

}  // namespace volorn::linux_host
