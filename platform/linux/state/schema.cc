#include "platform/linux/state/schema.h"

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kApplicationId = 0x766F6C6E;  // "voln"

constexpr const char* kMarkAsOurs = "PRAGMA application_id = 0x766F6C6E; PRAGMA user_version = 1;";

static_assert(kSchemaVersion == 1 && kApplicationId == 0x766F6C6E, "kMarkAsOurs names both");

// Times are seconds since the reference date of Date. SQLite keeps this text, and kSelectTables finds it
// again to the letter.
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

constexpr std::string_view kSelectTables =
    "SELECT group_concat(sql, char(59, 10, 10)) FROM (SELECT sql FROM sqlite_schema ORDER BY rowid)";

// A trigger, a view or an expression of somebody else's would be run by our statements, and need not end.
void checkTables(Database& database) {
  Statement select = database.prepare(kSelectTables);
  if (select.step() && select.text(0) == kTables) return;
  throw SqliteError(SQLITE_CORRUPT, "its tables are not those that were made");
}

}  // namespace

Schema schemaOf(Database& database) {
  const std::int64_t application_id = database.integer("PRAGMA application_id");
  const std::int64_t version = database.integer("PRAGMA user_version");
  if (application_id == kApplicationId && version == kSchemaVersion) {
    checkTables(database);
    return Schema::kCurrent;
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
