#include "volornctl/kept/unsent.h"

#include <algorithm>
#include <utility>

#include "platform/linux/read_file.h"
#include "platform/linux/state/schema.h"
#include "volornctl/number_option.h"

namespace volorn::ctl {
namespace {

using linux_host::StateReader;
using linux_host::StateUnreadable;

constexpr std::size_t kIdentityDigits = 32;

struct IdentifiedFile {
  std::string identity;
  StateReader reader;
};

// None for one that gives nothing, or has no identity and so no place in it that could be told.
std::optional<IdentifiedFile> openSetAside(const std::string& directory, const std::string& name) {
  try {
    StateReader reader(directory, name);
    auto identity = reader.identity();
    if (identity) return IdentifiedFile{*std::move(identity), std::move(reader)};
  } catch (const StateUnreadable&) {
  }
  return std::nullopt;
}

IdentifiedFile openInUse(const std::string& directory) {
  StateReader reader(directory);
  auto identity = reader.identity();
  if (identity) return {*std::move(identity), std::move(reader)};
  throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                        reader.path() + ": without an identity until the daemon's next run");
}

// Adds to what is there.
void readAfter(IdentifiedFile& file, std::int64_t snapshot, std::size_t limit,
               std::vector<UnsentSnapshot>& unsent) {
  while (unsent.size() < limit) {
    auto next = file.reader.snapshotAfter(snapshot);
    if (!next) return;
    snapshot = next->id;
    unsent.push_back({{file.identity, snapshot}, *std::move(next)});
  }
}

// Where to go on in that file; 0 for its beginning. A copy from before the cursor's snapshot, put in its
// place, has others behind it.
std::int64_t placeIn(IdentifiedFile& file, const std::optional<Cursor>& cursor) {
  if (!cursor || cursor->file != file.identity) return 0;
  const auto newest = file.reader.newestSnapshot();
  return newest && newest->id >= cursor->snapshot ? cursor->snapshot : 0;
}

void readSetAside(const std::string& directory, const std::optional<Cursor>& cursor, std::size_t limit,
                  std::vector<UnsentSnapshot>& unsent) {
  std::vector<IdentifiedFile> files;
  // By the time in their names the oldest first.
  for (const std::string& name : linux_host::listFolder(directory)) {
    if (!name.starts_with(linux_host::kSetAsidePrefix) || name.ends_with("-journal")) continue;
    auto file = openSetAside(directory, name);
    if (!file) continue;
    if (cursor && cursor->file == file->identity) files.clear();
    files.push_back(*std::move(file));
  }
  for (IdentifiedFile& file : files) {
    try {
      readAfter(file, placeIn(file, cursor), limit, unsent);
    } catch (const StateUnreadable&) {
      // What stands before the damage is whole.
    }
  }
}

}  // namespace

std::optional<Cursor> parseCursor(const std::string& text) {
  const std::string file = text.substr(0, text.find(':'));
  if (file.size() != kIdentityDigits || file.find_first_not_of("0123456789abcdef") != file.npos ||
      text.size() <= file.size()) {
    return std::nullopt;
  }
  const auto snapshot = numberOf<std::int64_t>(text.substr(file.size() + 1));
  return snapshot && *snapshot >= 0 ? std::optional(Cursor{file, *snapshot}) : std::nullopt;
}

std::string textOf(const Cursor& cursor) {
  return cursor.file + ':' + std::to_string(cursor.snapshot);
}

std::vector<UnsentSnapshot> readUnsent(const std::string& state_directory,
                                       const std::optional<Cursor>& cursor, std::size_t limit) {
  std::vector<UnsentSnapshot> unsent;
  std::optional<IdentifiedFile> in_use;
  std::optional<StateUnreadable> failure;
  try {
    in_use = openInUse(state_directory);
  } catch (const StateUnreadable& error) {
    failure = error;
  }
  if (!cursor || !in_use || cursor->file != in_use->identity) {
    readSetAside(state_directory, cursor, limit, unsent);
  }
  if (in_use) readAfter(*in_use, placeIn(*in_use, cursor), limit, unsent);
  if (!unsent.empty()) return unsent;
  if (failure) throw StateUnreadable(*failure);
  throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                        state_directory + ": no snapshot after the cursor");
}

}  // namespace volorn::ctl
