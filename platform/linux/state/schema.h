#pragma once

#include <cstdint>

#include "platform/linux/state/database.h"

namespace volorn::linux_host {

inline constexpr const char* kStateFileName = "volorn.db";

inline constexpr int kSchemaVersion = 1;

inline constexpr std::int64_t kSnapshotsKept = 4000;  // the newest

// What a database that could be opened turns out to be.
enum class Schema {
  kEmpty,    // nothing in it, as a file of length 0
  kCurrent,  // ours, of the version that this program knows
  kNewer,    // ours, made by a newer program
  kForeign,  // anything else
};

// Throws SqliteError, above all for a file that is no database and for one of ours with other tables in it.
Schema schemaOf(Database& database);

// Fills an empty database. Throws SqliteError.
void createSchema(Database& database);

}  // namespace volorn::linux_host
