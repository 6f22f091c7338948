#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/date.h"
#include "platform/linux/state/database.h"
#include "platform/linux/state/schema.h"
#include "platform/linux/usage_books.h"
#include "platform/preferences_store.h"
#include "platform/waketide.h"

namespace volorn::linux_host {

// Why a state file gives nothing.
class StateUnreadable : public std::runtime_error {
 public:
  enum class Reason {
    kNothingYet,  // no run has kept anything: the file is missing or empty
    kCutOff,      // a run was cut off, and whoever may write the file is to take back what it left
    kRefused,     // anything else; the text tells
  };

  StateUnreadable(Reason reason, const std::string& text) : std::runtime_error(text), reason_(reason) {}

  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

struct StoredSnapshot {
  Date taken_at;
  std::vector<std::pair<std::string, std::int64_t>> metrics;  // in the order written
  std::vector<std::string> unknown =
      {};               // keys among them whose value stands in for a reading, in that order
  std::int64_t id = 0;  // in its file, where later ones have greater ones

  bool isKnown(std::string_view key) const { return std::ranges::find(unknown, key) == unknown.end(); }
};

// Reads a state file without writing a byte to it or beside it, in one transaction that holds up a daemon's
// commit as long as the work takes. Every failure is a StateUnreadable whose text is for people.
class StateReader {
 public:
  // `directory` is the folder of the state file, or of one that was set aside.
  explicit StateReader(const std::string& directory, const std::string& name = kStateFileName);

  // The state file's full path, free of symbolic links.
  const std::string& path() const { return path_; }

  // 32 hexadecimal digits; none for a file from before it was given one.
  std::optional<std::string> identity();

  std::optional<PreferenceValue> preference(std::string_view domain, std::string_view key);
  std::optional<JobDescription> job(std::string_view name);

  // None before the first mark, and in a file from before there were books.
  std::optional<UsageBooks> usageBooks();

  // None when no snapshot has been taken.
  std::optional<StoredSnapshot> newestSnapshot();

  // At most `limit` of them, the oldest of these first.
  std::vector<StoredSnapshot> newestSnapshots(std::int64_t limit);

  // The next one; none behind the newest.
  std::optional<StoredSnapshot> snapshotAfter(std::int64_t id);

 private:
  std::vector<StoredSnapshot> readSnapshots(Statement& which);

  template <typename Work>
  auto guarded(Work work);

  std::string path_;
  std::optional<Database> database_;
  std::optional<Statement> metrics_;
  std::optional<Statement> next_;
  bool has_usage_books_ = false;
  std::int64_t first_with_stand_ins_ = std::numeric_limits<std::int64_t>::max();  // snapshot that keeps them
};

}  // namespace volorn::linux_host
