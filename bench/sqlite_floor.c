/* A bare program that commits the rows of one daily run to an existing state file, with the daemon's pragmas
   and nothing of its reading, deciding and checking. Usage: sqlite_floor STATE-FILE */
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>

static sqlite3* database;

static void execute(const char* sql) {
  char* message = NULL;
  if (sqlite3_exec(database, sql, NULL, NULL, &message) != SQLITE_OK) {
    fprintf(stderr, "sqlite_floor: %s: %s\n", sql, message);
    _Exit(1);
  }
}

static void insertMetrics(void) {
  sqlite3_stmt* keys = NULL;
  sqlite3_stmt* insert = NULL;
  const sqlite3_int64 snapshot_id = sqlite3_last_insert_rowid(database);
  sqlite3_prepare_v2(database, "SELECT id FROM metric_key", -1, &keys, NULL);
  sqlite3_prepare_v2(database, "INSERT INTO metric VALUES (?, ?, ?, ?)", -1, &insert, NULL);
  for (int position = 1; sqlite3_step(keys) == SQLITE_ROW; ++position) {
    sqlite3_bind_int64(insert, 1, snapshot_id);
    sqlite3_bind_int(insert, 2, position);
    sqlite3_bind_int64(insert, 3, sqlite3_column_int64(keys, 0));
    sqlite3_bind_int64(insert, 4, 4711);
    if (sqlite3_step(insert) != SQLITE_DONE) _Exit(1);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(keys);
  sqlite3_finalize(insert);
}

int main(int argc, char** argv) {
  if (argc != 2 || sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READWRITE, NULL) != SQLITE_OK) return 1;
  execute("PRAGMA journal_mode = PERSIST");
  execute("PRAGMA synchronous = FULL");
  execute("BEGIN IMMEDIATE");
  execute("REPLACE INTO preference VALUES ('com.zorvik.volorn', 'lastWakeupTime', 'date', 817000000.5)");
  execute("REPLACE INTO job VALUES ('com.zorvik.volorn.logcreation', 817000000.0, 817604800.0)");
  execute(
      "REPLACE INTO preference VALUES ('com.zorvik.volorn', 'nextPlannedWakeupTime', 'date', 817000000.0)");
  execute("INSERT INTO snapshot (taken_at) VALUES (817000000.5)");
  insertMetrics();
  execute(
      "REPLACE INTO preference VALUES ('com.zorvik.volorn', 'lastLogDumpedDaySince1970', 'integer', 20779)");
  execute("COMMIT");
  return sqlite3_close(database) != SQLITE_OK;
}
