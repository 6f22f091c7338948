#pragma once

#include <optional>
#include <string>

#include "platform/date.h"

namespace volorn::ctl {

// How the daily snapshots go on, the gravest first.
enum class Verdict { kDamaged, kUnarmed, kNever, kFull, kClock, kOverdue, kFine };

// Whether each of these holds; none where that cannot be told.
struct Signs {
  std::optional<bool> damaged = std::nullopt;  // a state file was set aside within 30 days
  std::optional<bool> unarmed =
      std::nullopt;  // systemd is to start the daemon, and has no timer at the job's row
  std::optional<bool> never = std::nullopt;  // no snapshot has been taken
  std::optional<bool> full = std::nullopt;   // under 8 MiB are free where the state file lies
  std::optional<bool> clock =
      std::nullopt;  // the plan is more than two days ahead: a wrong clock has made it
  std::optional<bool> overdue = std::nullopt;  // no snapshot for 49 hours
};

// The gravest that holds; none where a graver one cannot be told.
std::optional<Verdict> verdictOf(const Signs& signs);

const char* verdictName(Verdict verdict);     // "overdue"
const char* verdictMeaning(Verdict verdict);  // "no snapshot for 49 hours"

// What a check ends with, as monitoring plug-ins do: 0 fine, 1 warning, 2 critical, 3 cannot tell.
int checkStatus(const std::optional<Verdict>& verdict);

std::optional<bool> isSetAsideLately(const std::string& state_directory, const Date& now);
std::optional<bool> isNearlyFull(const std::string& state_directory);

// None for no plan.
bool isTooFarAhead(const std::optional<Date>& plan, const Date& now);
bool isOverdue(const std::optional<Date>& last_snapshot_at, const Date& now);

// Whether systemd, which shows in `run_directory` that it is the host's and what it was told of, lacks a
// timer where the job's window opens. One at any moment to come serves a window that is open, over, missing
// or too far ahead. False without systemd.
std::optional<bool> isUnarmed(const std::string& run_directory, const std::optional<Date>& window_start,
                              const Date& now);

}  // namespace volorn::ctl
