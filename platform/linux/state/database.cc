#include "platform/linux/state/database.h"

#include "platform/linux/state/late_files.h"

namespace volorn::linux_host {
namespace {

// Steps of SQLite's machine after which a statement is given up, tens of times as many as a check of a full
// file takes: pages that refer to each other make a table without end.
constexpr int kMostSteps = 10'000'000;

void checkDatabase(sqlite3* database, int result) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
  throw SqliteError(result, database ? sqlite3_errmsg(database) : sqlite3_errstr(result));
}

}  // namespace

bool SqliteError::tellsOfDamage() const {
  switch (code()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:
    case SQLITE_SCHEMA:
    case SQLITE_TOOBIG:
    case SQLITE_INTERRUPT:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
      return true;
    default:
      return false;
  }
}

Statement::Statement(sqlite3* database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  checkDatabase(database,
                sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement, nullptr));
  statement_.reset(statement);
}

void Statement::check(int result) const {
  checkDatabase(sqlite3_db_handle(statement_.get()), result);
}

Statement& Statement::bind(int parameter, std::int64_t value) {
  check(sqlite3_bind_int64(statement_.get(), parameter, value));
  return *this;
}

Statement& Statement::bind(int parameter, double value) {
  check(sqlite3_bind_double(statement_.get(), parameter, value));
  return *this;
}

Statement& Statement::bind(int parameter, std::string_view text) {
  check(sqlite3_bind_text(statement_.get(), parameter, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT));
  return *this;
}

Statement& Statement::bindBytes(int parameter, std::string_view bytes) {
  check(sqlite3_bind_blob(statement_.get(), parameter, bytes.data(), static_cast<int>(bytes.size()),
                          SQLITE_TRANSIENT));
  return *this;
}

bool Statement::step() {
  const int result = sqlite3_step(statement_.get());
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) {
    sqlite3_reset(statement_.get());
    return false;
  }
  // The text belongs to the failed step: it is taken before the reset, which a statement that failed needs to
  // let go of its locks.
  const SqliteError error(result, sqlite3_errmsg(sqlite3_db_handle(statement_.get())));
  sqlite3_reset(statement_.get());
  throw error;
}

void Statement::run() {
  step();
  sqlite3_reset(statement_.get());
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
}

std::string Statement::text(int column) const {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
  const int length_bytes = sqlite3_column_bytes(statement_.get(), column);
  return bytes ? std::string(bytes, static_cast<std::size_t>(length_bytes)) : std::string();
}

Database::Database(const std::string& path, Access access, int busy_timeout_ms, int most_value_bytes) {
  const int flags = access == Access::kReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  letSqliteSeeLateFiles();
  sqlite3* database = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
  database_.reset(database);
  checkDatabase(database, result);
  checkDatabase(database, sqlite3_busy_timeout(database, busy_timeout_ms));
  // The file may have been made by someone else, and a page of it may hold anything.
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, most_value_bytes);
  sqlite3_progress_handler(
      database, kMostSteps, [](void*) { return 1; }, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  execute("PRAGMA cell_size_check = ON");
}

void Database::execute(const char* sql) {
  checkDatabase(database_.get(), sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr));
}

std::int64_t Database::integer(std::string_view sql) {
  Statement statement = prepare(sql);
  return statement.step() ? statement.integer(0) : 0;
}

}  // namespace volorn::linux_host
