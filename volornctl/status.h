#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/date.h"
#include "volornctl/command.h"

namespace volorn::ctl {

// The daemon's bookkeeping. A preference of the wrong kind counts as none, as it does for the daemon.
struct Status {
  struct Window {
    Date start;
    Date end;
  };

  std::string state_file;
  std::optional<Date> next_planned_wakeup_time = std::nullopt;
  std::optional<Date> last_wakeup_time = std::nullopt;
  std::optional<std::int64_t> last_log_dumped_day_since_1970 = std::nullopt;
  std::optional<Window> job = std::nullopt;
};

// Throws StateUnreadable.
Status readStatus(const std::string& state_directory);

std::string statusJson(const Status& status);
std::string statusTable(const Status& status, const Moment& moment, bool colour);

class StatusCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  bool json_ = false;
};

}  // namespace volorn::ctl
