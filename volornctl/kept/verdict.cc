#include "volornctl/kept/verdict.h"

#include <dirent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/linux/read_file.h"
#include "platform/linux/state/schema.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr double kSecondsPerDay = 86'400;
constexpr double kSetAsideSeconds = 30 * kSecondsPerDay;
constexpr double kFarthestPlanSeconds = 2 * kSecondsPerDay;
constexpr double kOverdueSeconds = 49 * 3600;  // two snapshots lie up to 48 hours apart
constexpr std::uint64_t kFreeBytes = 8 * 1024 * 1024;

constexpr std::size_t kUnitLimitBytes = 65'536;

struct Wording {
  const char* name;
  const char* meaning;
  int check_status;
};

// In the order of Verdict.
constexpr std::array kWordings = {
    Wording{"damaged", "a state file was set aside within 30 days", 2},
    Wording{"unarmed", "systemd has no timer for the next start", 2},
    Wording{"never", "no snapshot has been taken yet", 2},
    Wording{"full", "less than 8 MiB are free where the state file lies", 1},
    Wording{"clock", "the plan is more than two days ahead, which a wrong clock has made", 1},
    Wording{"overdue", "no snapshot for 49 hours", 1},
    Wording{"fine", "a snapshot was taken within 49 hours", 0},
};

const Wording& wordingOf(Verdict verdict) {
  return kWordings.at(static_cast<std::size_t>(verdict));
}

// "20261123T040506Z", as it stands behind the name of a file that was set aside.
std::optional<Date> dateOfStamp(std::string stamp) {
  stamp.resize(std::min<std::size_t>(stamp.size(), 16));  // another of that second has a number behind it
  for (const auto& [at, mark] : {std::pair(4, "-"), {7, "-"}, {13, ":"}, {16, ":"}}) {
    if (stamp.size() < 16) return std::nullopt;
    stamp.insert(static_cast<std::size_t>(at), mark);
  }
  return dateOf(stamp, utc);
}

// Of a line such as "OnCalendar=2026-11-23 21:01:41.25 UTC", cut to the second.
std::optional<Date> dateOfTimer(const std::string& unit) {
  constexpr std::string_view kSetting = "\nOnCalendar=";
  const std::size_t line = unit.find(kSetting);
  if (line == std::string::npos) return std::nullopt;
  std::string text = unit.substr(line + kSetting.size(), 19);
  if (text.size() > 10 && text[10] == ' ') text[10] = 'T';
  return dateOf(text + "Z", utc);
}

}  // namespace

std::optional<Verdict> verdictOf(const Signs& signs) {
  const std::array by_gravity = {
      std::pair{Verdict::kDamaged, signs.damaged}, std::pair{Verdict::kUnarmed, signs.unarmed},
      std::pair{Verdict::kNever, signs.never},     std::pair{Verdict::kFull, signs.full},
      std::pair{Verdict::kClock, signs.clock},     std::pair{Verdict::kOverdue, signs.overdue},
  };
  for (const auto& [verdict, holds] : by_gravity) {
    if (!holds) return std::nullopt;
    if (*holds) return verdict;
  }
  return Verdict::kFine;
}

const char* verdictName(Verdict verdict) {
  return wordingOf(verdict).name;
}

const char* verdictMeaning(Verdict verdict) {
  return wordingOf(verdict).meaning;
}

int checkStatus(const std::optional<Verdict>& verdict) {
  constexpr int kCannotTell = 3;
  return verdict ? wordingOf(*verdict).check_status : kCannotTell;
}

std::optional<bool> isSetAsideLately(const std::string& state_directory, const Date& now) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(state_directory.c_str()), closedir);
  if (!folder) return errno == ENOENT ? std::optional(false) : std::nullopt;
  const std::string_view beginning = linux_host::kSetAsidePrefix;
  bool is_lately = false;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(beginning)) continue;
    const std::optional<Date> set_aside_at = dateOfStamp(std::string(name.substr(beginning.size())));
    is_lately |= set_aside_at && now.secondsSince(*set_aside_at) <= kSetAsideSeconds;
  }
  return is_lately;
}

std::optional<bool> isNearlyFull(const std::string& state_directory) {
  struct statvfs disk = {};
  if (statvfs(state_directory.c_str(), &disk) != 0) return std::nullopt;
  return disk.f_bavail * std::uint64_t{disk.f_frsize} < kFreeBytes;
}

bool isTooFarAhead(const std::optional<Date>& plan, const Date& now) {
  return plan && plan->secondsSince(now) > kFarthestPlanSeconds;
}

bool isOverdue(const std::optional<Date>& last_snapshot_at, const Date& now) {
  return last_snapshot_at && now.secondsSince(*last_snapshot_at) > kOverdueSeconds;
}

std::optional<bool> isUnarmed(const std::string& run_directory, const std::optional<Date>& window_start,
                              const Date& now) {
  if (access((run_directory + "/systemd/system").c_str(), F_OK) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? std::optional(false) : std::nullopt;
  }
  const auto unit = linux_host::readFile(run_directory + "/systemd/transient/volorn.timer", kUnitLimitBytes);
  if (unit.error == ENOENT) return true;
  if (unit.error != 0) return std::nullopt;
  const std::optional<Date> elapse = dateOfTimer(unit.bytes);
  if (!elapse) return true;
  const bool is_ahead =
      window_start && window_start->secondsSince(now) > 0 && !isTooFarAhead(window_start, now);
  // The timer's moment is read without its fraction.
  return is_ahead ? std::abs(elapse->secondsSince(*window_start)) > 2 : elapse->secondsSince(now) < -1;
}

}  // namespace volorn::ctl
