#include "volornctl/recorded/record_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace volorn::ctl {
namespace {

using linux_host::Database;
using linux_host::FileDescriptor;
using linux_host::SqliteError;
using linux_host::Statement;

constexpr std::int64_t kApplicationId = 0x766F6C72;  // "volr"
constexpr std::int64_t kVersion = 1;
constexpr mode_t kMode = 0640;
constexpr int kPatienceMs = 2'000;
constexpr std::int64_t kPageBytes = 4096;

// Within what is kept: on a full disk the journal is to have room for giving up a block and taking a part.
constexpr std::int64_t kJournalBytes = 256 * 1024;

// SQLite keeps the text, which is found again to the letter. `block` is the id of the first part of a block.
constexpr const char* kTable = R"sql(CREATE TABLE part (
  id INTEGER PRIMARY KEY,
  block INTEGER NOT NULL,
  first_at_ms INTEGER NOT NULL,
  begins INTEGER NOT NULL,
  break_seconds REAL NOT NULL,
  marks BLOB NOT NULL,
  checksum INTEGER NOT NULL,
  lines BLOB NOT NULL
) STRICT)sql";

[[noreturn]] void fail(const std::string& path, int error = errno) {
  throw std::system_error(error, std::generic_category(), path);
}

// Without symbolic links in its folder, as SQLite wants it.
std::string canonical(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(folder.c_str(), nullptr), std::free);
  if (!resolved) fail(path);
  return std::string(resolved.get()) + "/" + path.substr(slash + 1);
}

std::int64_t pagesOf(std::int64_t bytes) {
  return bytes / (kPageBytes - 100) + 2;
}

std::int64_t bytesOf(const std::deque<RecordPart>& parts) {
  std::int64_t bytes = 0;
  for (const RecordPart& part : parts) bytes += static_cast<std::int64_t>(part.lines.size()) + 1000;
  return bytes;
}

}  // namespace

void checkRecord(Database& database, bool may_be_empty) {
  const std::int64_t application_id = database.integer("PRAGMA application_id");
  Statement tables = database.prepare("SELECT sql FROM sqlite_schema");
  const bool has_any = tables.step();
  if (application_id == 0 && !has_any && may_be_empty) return;
  if (application_id != kApplicationId)
    throw SqliteError(SQLITE_AUTH, "no record, but another program's file");
  if (database.integer("PRAGMA user_version") > kVersion) {
    throw SqliteError(SQLITE_AUTH, "written by a newer program");
  }
  // A view or an expression of somebody else's need not end.
  if (!has_any || tables.text(0) != kTable || tables.step()) {
    throw SqliteError(SQLITE_CORRUPT, "its tables are not those of a record");
  }
}

RecordFile::RecordFile(const std::string& path, std::int64_t keep_bytes,
                       std::function<void(const std::string&)> tell)
    : path_(canonical(path)), most_pages_((keep_bytes - kJournalBytes) / kPageBytes), tell_(std::move(tell)) {
  makeFile();
  try {
    open();
  } catch (const SqliteError& error) {
    if (!error.tellsOfDamage()) throw std::runtime_error(path_ + ": " + error.what());
    openAnew(error.what());
  }
}

void RecordFile::makeFile() {
  struct stat status = {};
  struct stat named = {};
  do {
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    lock_ = FileDescriptor(::open(path_.c_str(), flags | O_CREAT | O_EXCL, kMode));
    const bool is_new = static_cast<bool>(lock_);
    if (!lock_) lock_ = FileDescriptor(::open(path_.c_str(), flags));
    if (!lock_) fail(path_);
    const std::string folder = path_.substr(0, path_.rfind('/') + 1);
    if (is_new && geteuid() == 0 && stat(folder.c_str(), &status) == 0 &&
        fchown(lock_.get(), status.st_uid, status.st_gid) != 0) {
      fail(path_);
    }
    if (fstat(lock_.get(), &status) != 0) fail(path_);
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path_ + ": not a regular file");
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) throw std::runtime_error(path_ + ": another recorder writes it");
      fail(path_);
    }
    // Another may have put it aside meanwhile.
  } while (stat(path_.c_str(), &named) != 0 || named.st_ino != status.st_ino);
}

void RecordFile::open() {
  database_.emplace(path_, Database::Access::kReadWrite, kPatienceMs, kMostPartBytes);
  checkRecord(*database_, true);
  database_->execute("PRAGMA cache_size = -1024");
  if (database_->integer("SELECT count(*) FROM sqlite_schema") == 0) {
    database_->execute("PRAGMA page_size = 4096; PRAGMA auto_vacuum = INCREMENTAL");
    database_->execute("PRAGMA journal_mode = PERSIST");
    const std::string marks = "BEGIN IMMEDIATE; PRAGMA application_id = " + std::to_string(kApplicationId) +
                              "; PRAGMA user_version = " + std::to_string(kVersion) + ";";
    database_->execute((marks + kTable + "; COMMIT").c_str());
  }
  const std::string journal = "PRAGMA journal_mode = PERSIST; PRAGMA journal_size_limit = ";
  database_->execute((journal + std::to_string(kJournalBytes)).c_str());
  // One that was allowed to be larger gives back what it may not have any more.
  if (database_->integer("PRAGMA page_count") > most_pages_) {
    makeRoom(0, true);
    database_->execute("PRAGMA incremental_vacuum");
  }
  holdJournal();
}

// Renamed and not removed: somebody may make something of it yet.
void RecordFile::openAnew(const std::string& reason) {
  database_.reset();
  open_block_.reset();
  const std::string aside = path_ + ".damaged";
  tell_(path_ + ": damaged (" + reason + "); it becomes " + aside + ", and a new one begins");
  // The journal first: SQLite takes one that it finds for the file's beside it.
  const std::string journal = path_ + "-journal";
  if (std::rename(journal.c_str(), (aside + "-journal").c_str()) != 0 && errno != ENOENT) fail(journal);
  if (std::rename(path_.c_str(), aside.c_str()) != 0) fail(path_);
  makeFile();
  open();
}

void RecordFile::holdJournal() const {
  const FileDescriptor journal(
      ::open((path_ + "-journal").c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  // Where there is no room for it nothing is lost yet, and the next start tries again.
  if (journal && fallocate(journal.get(), FALLOC_FL_KEEP_SIZE, 0, kJournalBytes) != 0) return;
}

bool RecordFile::dropOldest(bool may_drop_all) {
  Statement oldest = database_->prepare("SELECT id, block FROM part ORDER BY id LIMIT 1");
  if (!oldest.step()) return false;
  Statement next = database_->prepare("SELECT id FROM part WHERE id > ? AND block <> ? ORDER BY id LIMIT 1");
  next.bind(1, oldest.integer(0)).bind(2, oldest.integer(1));
  const bool has_next = next.step();
  if (!has_next && !may_drop_all) return false;
  if (has_next) {
    database_->prepare("DELETE FROM part WHERE id < ?").bind(1, next.integer(0)).run();
  } else {
    database_->execute("DELETE FROM part");
    open_block_.reset();
  }
  return true;
}

// In a transaction of its own: pages that are freed and used again within one are kept in the journal, too.
void RecordFile::makeRoom(std::int64_t bytes, bool may_drop_all) {
  const std::int64_t needed = bytes > 0 ? pagesOf(bytes) : 0;
  const auto is_room = [&] {
    const std::int64_t used =
        database_->integer("PRAGMA page_count") - database_->integer("PRAGMA freelist_count");
    return used + needed <= most_pages_;
  };
  if (is_room()) return;
  database_->execute("BEGIN IMMEDIATE");
  while (!is_room()) {
    if (!dropOldest(may_drop_all)) throw SqliteError(SQLITE_FULL, "no room within what is kept");
  }
  database_->execute("COMMIT");
}

void RecordFile::write(const std::deque<RecordPart>& parts) {
  makeRoom(bytesOf(parts), parts.front().begins_block);
  database_->execute("BEGIN IMMEDIATE");
  std::optional<std::int64_t> block = open_block_;
  std::int64_t id = database_->integer("SELECT max(id) FROM part");
  Statement insert = database_->prepare("INSERT INTO part VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  for (const RecordPart& part : parts) {
    if (part.begins_block) block = id + 1;
    if (!block) continue;
    const std::string marks = packedMarks(part.marks);
    insert.bind(1, ++id)
        .bind(2, *block)
        .bind(3, part.marks.front().at_ms)
        .bind(4, static_cast<std::int64_t>(part.begins))
        .bind(5, part.break_seconds)
        .bindBytes(6, marks)
        .bind(7, checksumOf(part, marks))
        .bindBytes(8, part.lines)
        .run();
  }
  database_->execute("COMMIT");
  open_block_ = block;
}

void RecordFile::rollBack() {
  if (!database_->autocommits()) database_->execute("ROLLBACK");
}

std::optional<std::string> RecordFile::append(const std::deque<RecordPart>& parts) {
  if (parts.empty()) return std::nullopt;
  bool was_set_aside = false;
  while (true) {
    try {
      write(parts);
      return std::nullopt;
    } catch (const SqliteError& error) {
      const std::string reason = path_ + ": " + error.what();
      try {
        rollBack();
        if (error.tellsOfDamage() && !was_set_aside) {
          was_set_aside = true;
          openAnew(error.what());
        } else if (error.code() != SQLITE_FULL || !dropOldest(parts.front().begins_block)) {
          return reason;
        }
      } catch (const std::runtime_error& another) {
        return path_ + ": " + another.what();
      }
    }
  }
}

}  // namespace volorn::ctl
