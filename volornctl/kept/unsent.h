#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/state/state_reader.h"

namespace volorn::ctl {

// Which snapshot a receiver has acknowledged last.
struct Cursor {
  std::string file;  // the identity of the state file that holds it
  std::int64_t snapshot = 0;
};

// "0123456789abcdef0123456789abcdef:17". None for anything else.
std::optional<Cursor> parseCursor(const std::string& text);
std::string textOf(const Cursor& cursor);

struct UnsentSnapshot {
  Cursor cursor;  // behind it
  linux_host::StoredSnapshot snapshot;
};

// The snapshots after the cursor, the oldest first and at most so many: those that are left in the file that
// it names, then those of each later one, the newest of which is in use and the others were set aside. A file
// that was set aside is read as far as it can be. Without a cursor, or with one of a file that is not there,
// all of them. Throws StateUnreadable, with kNothingYet where there are none.
std::vector<UnsentSnapshot> readUnsent(const std::string& state_directory,
                                       const std::optional<Cursor>& cursor, std::size_t limit);

}  // namespace volorn::ctl
