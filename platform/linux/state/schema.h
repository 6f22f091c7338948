#pragma once

#include <cstdint>

#include "platform/linux/state/database.h"

namespace volorn::linux_host {

inline constexpr const char* kStateFileName = "volorn.db";

// The name of one that was set aside begins so, and goes on with the UTC time of that: "20261123T040506Z". A
// journal that went with it has "-journal" behind that.
inline constexpr const char* kSetAsidePrefix = "volorn.db.damaged-";

inline constexpr int kSchemaVersion = 3;  // the newest that this program knows

// Each version adds to those before it and changes nothing of them. From this one on the file keeps which of
// a snapshot's values stand in for a reading, and has an identity of its own.
inline constexpr int kStandInsVersion = 2;

// From this one on the file keeps the books of usage.
inline constexpr int kUsageBooksVersion = 3;

inline constexpr std::int64_t kSnapshotsKept = 4000;  // the newest

// What a database that could be opened turns out to be.
struct Schema {
  enum class Kind {
    kOurs,
    kNewer,    // ours, made by a newer program
    kForeign,  // anything else
  };

  Kind kind = Kind::kOurs;
  int version = 0;  // of one of ours; 0 for an empty database, as a file of length 0 is
};

// Throws SqliteError, above all for a file that is no database and for one of ours with other tables in it.
Schema schemaOf(Database& database);

// Brings a database of ours from that version to the newest, within the transaction that is under way. Throws
// SqliteError, and std::system_error where there is no chance to be had for an identity.
void upgradeSchema(Database& database, int version);

}  // namespace volorn::linux_host
