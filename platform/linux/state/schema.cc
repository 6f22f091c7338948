#include "platform/linux/state/schema.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kApplicationId = 0x766F6C6E;  // "voln"

constexpr const char* kMarkAsOurs = "PRAGMA application_id = 0x766F6C6E; PRAGMA user_version = 1;";

static_assert(kSchemaVersion == 1 && kApplicationId == 0x766F6C6E, "kMarkAsOurs names both");

// Times are seconds since the reference date of Date. SQLite keeps each of these texts, and
// holdsOurTablesAlone finds them again to the letter.
constexpr std::string_view kTables = R"sql(CREATE TABLE preference (
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
) STRICT, WITHOUT ROWID)sql";

constexpr std::string_view kBetweenTables = ";\n\n";

// Not so when there is a trigger, a view or an expression of somebody else's, which our statements would run
// and which need not end.
bool holdsOurTablesAlone(Database& database) {
  Statement select = database.prepare("SELECT sql FROM sqlite_schema WHERE sql NOT NULL");
  std::string_view expected = kTables;
  while (select.step()) {
    const std::size_t end = std::min(expected.find(kBetweenTables), expected.size());
    if (select.text(0) != expected.substr(0, end)) return false;
    expected.remove_prefix(std::min(end + kBetweenTables.size(), expected.size()));
  }
  return expected.empty();
}

}  // namespace

Schema schemaOf(Database& database) {
  const std::int64_t application_id = database.integer("PRAGMA application_id");
  const std::int64_t version = database.integer("PRAGMA user_version");
  if (application_id == kApplicationId && version == kSchemaVersion) {
    if (holdsOurTablesAlone(database)) return Schema::kCurrent;
    throw SqliteError(SQLITE_CORRUPT, "its tables are not those that were made");
  }
  if (application_id == kApplicationId && version > kSchemaVersion) return Schema::kNewer;
  const bool untouched = application_id == 0 && version == 0;
  return untouched && database.integer("SELECT count(*) FROM sqlite_schema") == 0 ? Schema::kEmpty
                                                                                  : Schema::kForeign;
}

void createSchema(Database& database) {
  database.execute(kMarkAsOurs);
  database.execute(kTables.data());
}

}  // namespace volorn::linux_host
