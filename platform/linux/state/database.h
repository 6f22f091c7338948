#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace volorn::linux_host {

// A call of SQLite that failed, with SQLite's own words for it.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}

  // The primary result code: SQLITE_FULL, SQLITE_BUSY, ...
  int code() const { return code_ & 0xFF; }

  // True when the file's content is at fault and not its circumstances. Every statement of ours is fixed, so
  // one that SQLite cannot make sense of tells of a file that we did not make.
  bool tellsOfDamage() const;

 private:
  int code_;
};

// A prepared statement. Parameters and columns count as in SQLite: the first from 1, the second from 0.
// Everything throws SqliteError.
class Statement {
 public:
  Statement(sqlite3* database, std::string_view sql);

  Statement& bind(int parameter, std::int64_t value);
  Statement& bind(int parameter, double value);
  Statement& bind(int parameter, std::string_view text);
  Statement& bindBytes(int parameter, std::string_view bytes);

  // True when there is a row to read. After false the statement is ready to be bound and run again.
  bool step();

  // Runs a statement that gives no rows or of which none is wanted.
  void run();

  // Makes the statement ready to be bound and run again before its rows are at an end.
  void reset();

  int columnType(int column) const { return sqlite3_column_type(statement_.get(), column); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  double real(int column) const { return sqlite3_column_double(statement_.get(), column); }
  std::string text(int column) const;

 private:
  void check(int result) const;

  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// An open database, closed at the end. Everything throws SqliteError.
class Database {
 public:
  enum class Access { kReadOnly, kReadWrite };

  // A hundred times the longest text in the state file.
  static constexpr int kMostValueBytes = 100'000;

  // Opens an existing file; no part of its path may be a symbolic link. A lock of another process is waited
  // for up to `busy_timeout_ms`. A value that is longer than the last is damage.
  Database(const std::string& path, Access access, int busy_timeout_ms,
           int most_value_bytes = kMostValueBytes);

  // Runs statements of which no row is wanted.
  void execute(const char* sql);

  Statement prepare(std::string_view sql) { return Statement(database_.get(), sql); }

  // The first column of the first row, an integer; 0 when there is no row.
  std::int64_t integer(std::string_view sql);

  // Rows that the latest INSERT, UPDATE or DELETE changed.
  int changes() const { return sqlite3_changes(database_.get()); }
  std::int64_t lastInsertRowid() const { return sqlite3_last_insert_rowid(database_.get()); }

  // Known once something has been read.
  bool isReadOnly() const { return sqlite3_db_readonly(database_.get(), "main") == 1; }

  // False inside a transaction.
  bool autocommits() const { return sqlite3_get_autocommit(database_.get()) != 0; }

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
  };
  std::unique_ptr<sqlite3, Close> database_;
};

}  // namespace volorn::linux_host
