#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/date.h"
#include "platform/linux/usage_books.h"
#include "volornctl/command.h"
#include "volornctl/kept/verdict.h"

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
  std::optional<Date> last_snapshot_at = std::nullopt;
  std::optional<linux_host::UsageBooks> usage_books = std::nullopt;  // none where no battery was noted
  std::optional<linux_host::UsageSums> usage_now = std::nullopt;     // none: they are not known
  std::optional<Verdict> verdict = std::nullopt;                     // none: it cannot be told
};

// Throws StateUnreadable. The service manager is asked for the system's own folder, unless that was named.
Status readStatus(const Surroundings& surroundings);

// The verdict in one line, also of a file that is not there or cannot be read.
std::string checkLine(const Surroundings& surroundings, std::optional<Verdict>& verdict);

std::string statusJson(const Status& status);
std::string statusTable(const Status& status, const Moment& moment, bool colour);

class StatusCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;
  int exitStatus() const override { return exit_status_; }

 private:
  void check(const Surroundings& surroundings);

  bool json_ = false;
  bool check_ = false;
  int exit_status_ = 0;
};

}  // namespace volorn::ctl
