#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/state/state_reader.h"
#include "volornctl/command.h"

namespace volorn::ctl {

// Snapshots, the oldest first.
using History = std::vector<linux_host::StoredSnapshot>;

// The newest `limit` snapshots. With a key, named with its prefix or without, only those that hold it, and
// nothing but it. Throws StateUnreadable, also when nothing is left.
History readHistory(const std::string& state_directory, std::int64_t limit,
                    const std::optional<std::string>& key);

std::string historyJson(const History& history);

// A row for each value.
std::string historyRows(const History& history, bool colour);

// A row for each key: a graph of it, and as many of the newest days as there is room for.
std::string historyOfKeys(const History& history, bool colour, std::size_t max_columns);

// A row for each day, with a bar, of snapshots that hold one key each.
std::string historyOfDays(const History& history, bool colour, std::size_t max_columns);

class HistoryCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  std::int64_t limit_ = std::numeric_limits<std::int64_t>::max();
  std::optional<std::string> key_;
  bool json_ = false;
};

}  // namespace volorn::ctl
