#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/state/database.h"
#include "volornctl/recorded/record_part.h"

namespace volorn::ctl {

inline constexpr std::int64_t kLeastKeptBytes = std::int64_t{1} << 20;

// Of one value in the file; a part compressed is far below it.
inline constexpr int kMostPartBytes = 16 << 20;

// Whether these tables are those of a record. Throws linux_host::SqliteError, above all for a file that is
// damaged or another program's.
void checkRecord(linux_host::Database& database, bool may_be_empty);

// A record that is being written, by this process alone: a SQLite file, its journal beside it. The oldest
// blocks make room for new ones.
class RecordFile {
 public:
  // Makes the file, with mode 0640, where there is none; made by root, it is the folder's owner's. One that
  // is damaged becomes FILE.damaged, which `tell` is told. Throws std::runtime_error whose text is for
  // people, above all where another recorder writes the file.
  RecordFile(const std::string& path, std::int64_t keep_bytes, std::function<void(const std::string&)> tell);

  // Keeps them, whole or not at all. Why not, where that is so: a reader that holds the file for longer than
  // two seconds, or a disk that is full without a block of ours to give up for it. A part that continues a
  // block which is no longer there is left out.
  std::optional<std::string> append(const std::deque<RecordPart>& parts);

  // Whether a part that begins no block could be read.
  bool hasOpenBlock() const { return open_block_.has_value(); }

 private:
  void makeFile();
  void open();
  void openAnew(const std::string& reason);
  void holdJournal() const;
  void write(const std::deque<RecordPart>& parts);
  void makeRoom(std::int64_t bytes, bool may_drop_all);
  bool dropOldest(bool may_drop_all);
  void rollBack();

  std::string path_;
  std::int64_t most_pages_;
  std::function<void(const std::string&)> tell_;
  linux_host::FileDescriptor lock_;
  std::optional<linux_host::Database> database_;  // ends before the lock: SQLite's own would go with that
  std::optional<std::int64_t> open_block_;        // that this process began
};

}  // namespace volorn::ctl
