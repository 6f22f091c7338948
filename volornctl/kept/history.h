#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "volornctl/command.h"
#include "volornctl/kept/figures.h"

namespace volorn::ctl {

// Which of the snapshots.
struct HistoryChoice {
  std::vector<std::string> keys;  // each with its prefix or without, or a group of them; none for every key
  std::int64_t limit = std::numeric_limits<std::int64_t>::max();
  std::optional<Date> since;
  std::optional<Date> until;  // this moment no longer
};

// Those of the time and with any of the keys, of which they keep nothing else, and of these the newest
// `limit`. Throws StateUnreadable, also when nothing is left.
History readHistory(const std::string& state_directory, const HistoryChoice& choice);

class HistoryCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  HistoryChoice choiceAt(const Moment& moment) const;

  std::int64_t limit_ = std::numeric_limits<std::int64_t>::max();
  std::vector<std::string> keys_;
  std::optional<std::string> since_;
  std::optional<std::string> until_;
  std::optional<std::string> last_;
  bool csv_ = false;
  bool json_ = false;
  bool local_ = false;
};

}  // namespace volorn::ctl
