#include "platform/linux/state/schema.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kApplicationId = 0x766F6C6E;  // "voln"

// A file made by copying a whole machine has the other's; nobody else has.
void giveIdentity(Database& database) {
  std::array<char, 16> identity = {};
  if (getrandom(identity.data(), identity.size(), 0) != std::ssize(identity)) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  database.prepare("INSERT INTO file SELECT ?, coalesce(max(id), 0) + 1 FROM snapshot")
      .bindBytes(1, {identity.data(), identity.size()})
      .run();
}

// What a version adds to the one before.
struct Version {
  const char* tables;
  void (*fill)(Database& database);
};

// Times are seconds since the reference date of Date. SQLite keeps each of these texts, and
// holdsTablesAloneOf finds them again to the letter.
constexpr std::array kVersions = {
    Version{R"sql(CREATE TABLE preference (
  domain TEXT NOT NULL,
  key TEXT NOT NULL,
  kind TEXT NOT NULL CHECK (kind = 'date' AND typeof(value) = 'real'
                         OR kind = 'integer' AND typeof(value) = 'integer'),
  value ANY NOT NULL,
  PRIMARY KEY (domain, key)
) STRICT, WITHOUT ROWID;

CREATE TABLE job (
  name TEXT PRIMARY KEY,
  window_start REAL NOT NULL,
  window_end REAL NOT NULL
) STRICT, WITHOUT ROWID;

CREATE TABLE metric_key (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE
) STRICT;

CREATE TABLE snapshot (
  id INTEGER PRIMARY KEY,
  taken_at REAL NOT NULL
) STRICT;

CREATE TABLE metric (
  snapshot_id INTEGER NOT NULL REFERENCES snapshot (id),
  position INTEGER NOT NULL,
  key_id INTEGER NOT NULL REFERENCES metric_key (id),
  value INTEGER NOT NULL,
  PRIMARY KEY (snapshot_id, position)
) STRICT, WITHOUT ROWID;

CREATE TABLE upkeep (
  task TEXT PRIMARY KEY,
  done_at REAL NOT NULL
) STRICT, WITHOUT ROWID)sql",
            nullptr},
    // A row for each value that stands in for a reading, of the snapshots from first_with_stand_ins on.
    Version{R"sql(CREATE TABLE stand_in (
  snapshot_id INTEGER NOT NULL,
  position INTEGER NOT NULL,
  PRIMARY KEY (snapshot_id, position),
  FOREIGN KEY (snapshot_id, position) REFERENCES metric
) STRICT, WITHOUT ROWID;

CREATE TABLE file (
  identity BLOB NOT NULL CHECK (length(identity) = 16),
  first_with_stand_ins INTEGER NOT NULL
) STRICT)sql",
            giveIdentity},
    // One row from the first mark on, one text: each column would cost every run that reads the schema.
    Version{R"sql(CREATE TABLE usage_books (books TEXT NOT NULL) STRICT)sql", nullptr},
};

static_assert(kVersions.size() == kSchemaVersion);

constexpr std::string_view kBetweenTables = ";\n\n";

// Not so when there is a trigger, a view or an expression of somebody else's, which our statements would run
// and which need not end.
bool holdsTablesAloneOf(std::int64_t version, Database& database) {
  Statement select = database.prepare("SELECT sql FROM sqlite_schema WHERE sql NOT NULL");
  for (std::int64_t i = 0; i < version; ++i) {
    for (std::string_view expected = kVersions[static_cast<std::size_t>(i)].tables; !expected.empty();) {
      const std::size_t end = std::min(expected.find(kBetweenTables), expected.size());
      if (!select.step() || select.text(0) != expected.substr(0, end)) return false;
      expected.remove_prefix(std::min(end + kBetweenTables.size(), expected.size()));
    }
  }
  return !select.step();
}

}  // namespace

Schema schemaOf(Database& database) {
  const std::int64_t application_id = database.integer("PRAGMA application_id");
  const std::int64_t version = database.integer("PRAGMA user_version");
  if (application_id == kApplicationId && version > kSchemaVersion) return {.kind = Schema::Kind::kNewer};
  if (application_id == kApplicationId && version > 0) {
    if (holdsTablesAloneOf(version, database)) return {.version = static_cast<int>(version)};
    throw SqliteError(SQLITE_CORRUPT, "its tables are not those that were made");
  }
  const bool untouched = application_id == 0 && version == 0;
  if (untouched && database.integer("SELECT count(*) FROM sqlite_schema") == 0) return {};
  return {.kind = Schema::Kind::kForeign};
}

void upgradeSchema(Database& database, int version) {
  if (version == kSchemaVersion) return;
  const std::string marks = "PRAGMA application_id = " + std::to_string(kApplicationId) +
                            "; PRAGMA user_version = " + std::to_string(kSchemaVersion);
  database.execute(marks.c_str());
  for (; version < kSchemaVersion; ++version) {
    const auto& [tables, fill] = kVersions[static_cast<std::size_t>(version)];
    database.execute(tables);
    if (fill) fill(database);
  }
}

}  // namespace volorn::linux_host
