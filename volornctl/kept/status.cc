#include "volornctl/kept/status.h"

#include <fcntl.h>

#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <variant>

#include "platform/linux/devices/read_usage_mark.h"
#include "platform/linux/state/note_file.h"
#include "platform/linux/state/state_directory.h"
#include "platform/linux/state/state_reader.h"
#include "platform/names.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;

constexpr const char* kNone = "none";

template <typename Value>
std::optional<Value> preference(linux_host::StateReader& reader, std::string_view key) {
  const std::optional<PreferenceValue> value = reader.preference(kDomain, key);
  const auto* held = value ? std::get_if<Value>(&*value) : nullptr;
  return held ? std::optional(*held) : std::nullopt;
}

std::string dateText(const std::optional<Date>& date, const Moment& moment) {
  return date ? timeAround(*date, moment) : kNone;
}

std::string snapshotDayText(const std::optional<std::int64_t>& day) {
  if (!day) return kNone;
  return dayText(*day).value_or("beyond the calendar") + " (UTC day " + std::to_string(*day) + ")";
}

std::string windowText(const std::optional<Status::Window>& window, const Date& now) {
  if (!window) return kNone;
  std::string text = utcTime(window->start) + " to " + utcTime(window->end);
  if (window->start.secondsSince(now) > 0) return text + ", opens " + distance(window->start, now);
  if (window->end.secondsSince(now) > 0) return text + ", open, ends " + distance(window->end, now);
  return text + ", ended " + distance(window->end, now);
}

// What the daemon would keep if it took its snapshot now.
std::optional<linux_host::UsageSums> usageNow(const linux_host::UsageBooks& books,
                                              const std::string& state_directory) {
  if (!books.sums) return std::nullopt;
  const linux_host::FileDescriptor folder(open(state_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (linux_host::NoteFile::tellsOfLoss(folder.get())) return std::nullopt;
  return linux_host::sumsNow(books, linux_host::readUsageMark("/proc", "/sys"));
}

std::string usageText(const Status& status) {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  if (!status.usage_now) return "not known until a full charge is seen";
  const auto& [usage_ns, standby_ns] = *status.usage_now;
  std::string text = duration(usage_ns / kSecondNs) + " in use, " + duration(standby_ns / kSecondNs) +
                     " in standby since the last full charge";
  if (status.usage_books->plugged_in != false) return text + "; plugged in";
  return text + ", of it " + duration((usage_ns - status.usage_books->sums->usage_ns) / kSecondNs) +
         " in use and " + duration((standby_ns - status.usage_books->sums->standby_ns) / kSecondNs) +
         " in standby since the last mark";
}

std::string verdictText(const std::optional<Verdict>& verdict) {
  if (!verdict) return "cannot be told";
  return std::string(verdictName(*verdict)) + ": " + verdictMeaning(*verdict);
}

constexpr const char* kRunDirectory = "/run";

// None, too, where it cannot be read: a timer at any moment is right then.
std::optional<Date> windowStart(const std::string& state_directory) {
  try {
    const auto job = linux_host::StateReader(state_directory).job(kJobName);
    if (job) return Date::fromSecondsSinceReferenceDate(job->window_start_time);
  } catch (const StateUnreadable&) {
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<bool> isUnarmedForAWhile(const Surroundings& surroundings, const std::string& state_directory) {
  using namespace std::chrono_literals;
  constexpr auto kPause = 100ms;
  constexpr int kLooks = 30;
  if (!surroundings.state_directory.empty()) return false;
  if (state_directory != linux_host::kSystemStateDirectory) return false;
  // While the daemon runs, and for a moment after, there is no timer, or one that is to be set anew.
  for (int look = 1;; ++look) {
    const auto answer = isUnarmed(kRunDirectory, windowStart(state_directory), surroundings.moment.now);
    if (answer != true || look == kLooks) return answer;
    std::this_thread::sleep_for(kPause);
  }
}

// Of a state file that was read, or of one that is not there yet: no status.
std::optional<Verdict> verdictOfState(const Surroundings& surroundings, const std::string& state_directory,
                                      const Status& status) {
  const Date& now = surroundings.moment.now;
  const std::optional<Date> window_start = status.job ? std::optional(status.job->start) : std::nullopt;
  return verdictOf({
      .damaged = isSetAsideLately(state_directory, now),
      .unarmed = isUnarmedForAWhile(surroundings, state_directory),
      .never = !status.last_snapshot_at,
      .full = isNearlyFull(state_directory),
      .clock = isTooFarAhead(status.next_planned_wakeup_time, now) || isTooFarAhead(window_start, now),
      .overdue = isOverdue(status.last_snapshot_at, now),
  });
}

Status readStoredStatus(const std::string& state_directory) {
  linux_host::StateReader reader(state_directory);
  Status status{
      .state_file = reader.path(),
      .next_planned_wakeup_time = preference<Date>(reader, kNextPlannedWakeupTimeKey),
      .last_wakeup_time = preference<Date>(reader, kLastWakeupTimeKey),
      .last_log_dumped_day_since_1970 = preference<std::int64_t>(reader, kLastLogDumpedDayKey),
      .usage_books = reader.usageBooks(),
  };
  if (const std::optional<JobDescription> job = reader.job(kJobName)) {
    status.job = Status::Window{.start = Date::fromSecondsSinceReferenceDate(job->window_start_time),
                                .end = Date::fromSecondsSinceReferenceDate(job->window_end_time)};
  }
  if (const auto snapshot = reader.newestSnapshot()) status.last_snapshot_at = snapshot->taken_at;
  return status;
}

}  // namespace

Status readStatus(const Surroundings& surroundings) {
  const std::string state_directory = stateDirectory(surroundings);
  Status status = readStoredStatus(state_directory);
  if (status.usage_books) status.usage_now = usageNow(*status.usage_books, state_directory);
  status.verdict = verdictOfState(surroundings, state_directory, status);
  return status;
}

std::string checkLine(const Surroundings& surroundings, std::optional<Verdict>& verdict) {
  const std::string state_directory = stateDirectory(surroundings);
  Status status;
  std::string trouble = "the folder of the state file does not tell enough";
  try {
    status = readStoredStatus(state_directory);
    verdict = verdictOfState(surroundings, state_directory, status);
  } catch (const StateUnreadable& error) {
    const bool is_missing = error.reason() == StateUnreadable::Reason::kNothingYet;
    verdict = is_missing ? verdictOfState(surroundings, state_directory, status)
                         : verdictOf({.damaged = isSetAsideLately(state_directory, surroundings.moment.now)});
    trouble = error.what();
  }
  if (!verdict) return "unknown: " + trouble;
  if (!status.last_snapshot_at) return verdictText(verdict);
  return verdictText(verdict) + "; last snapshot " +
         distance(*status.last_snapshot_at, surroundings.moment.now);
}

std::string statusJson(const Status& status) {
  Json preferences;
  preferences[kNextPlannedWakeupTimeKey] = jsonTime(status.next_planned_wakeup_time);
  preferences[kLastWakeupTimeKey] = jsonTime(status.last_wakeup_time);
  preferences[kLastLogDumpedDayKey] =
      status.last_log_dumped_day_since_1970 ? Json(*status.last_log_dumped_day_since_1970) : Json();
  Json job;
  if (status.job) {
    job["name"] = kJobName;
    job["windowStart"] = jsonTime(status.job->start);
    job["windowEnd"] = jsonTime(status.job->end);
  }
  Json document;
  document["schema"] = kJsonSchema;
  document["stateFile"] = status.state_file;
  document["preferences"] = preferences;
  document["job"] = job;
  document["lastSnapshotAt"] = jsonTime(status.last_snapshot_at);
  document["verdict"] = status.verdict ? Json(verdictName(*status.verdict)) : Json();
  return jsonLine(document);
}

std::string statusTable(const Status& status, const Moment& moment, bool colour) {
  const auto row = [](const char* label, const std::string& text) -> Row {
    return {{.text = label, .strong = true}, {.text = text}};
  };
  std::vector<Row> rows = {
      row("Verdict", verdictText(status.verdict)),
      row("State file", status.state_file),
      row("Next planned wake-up", dateText(status.next_planned_wakeup_time, moment)),
      row("Last wake-up", dateText(status.last_wakeup_time, moment)),
      row("Last snapshot", dateText(status.last_snapshot_at, moment)),
      row("Its day", snapshotDayText(status.last_log_dumped_day_since_1970)),
      row("Job window", windowText(status.job, moment.now)),
  };
  if (status.usage_books) rows.push_back(row("On battery", usageText(status)));
  return table(rows, colour);
}

CLI::App* StatusCommand::addTo(CLI::App& program) {
  CLI::App* command =
      program.add_subcommand("status", "Show the verdict, the plan, the last wake-up and the job");
  CLI::Option* json = command->add_flag("--json", json_, kJsonHelp);
  command->add_flag("--check", check_, "Print the verdict alone, and end as monitoring plug-ins do")
      ->excludes(json);
  return command;
}

void StatusCommand::run(const Surroundings& surroundings) {
  if (check_) return check(surroundings);
  const Status status = readStatus(surroundings);
  surroundings.output.write(json_ ? statusJson(status)
                                  : statusTable(status, surroundings.moment, surroundings.colour));
}

void StatusCommand::check(const Surroundings& surroundings) {
  std::optional<Verdict> verdict;
  std::string line;
  try {
    line = checkLine(surroundings, verdict);
  } catch (const std::runtime_error& error) {
    line = std::string("unknown: ") + error.what();
  }
  exit_status_ = checkStatus(verdict);
  try {
    surroundings.output.write(escaped(line) + "\n");
  } catch (const OutputClosed&) {
    // Who asked for the exit status alone has it.
  } catch (const std::system_error& error) {
    exit_status_ = checkStatus(std::nullopt);
    surroundings.errors.write(std::string("volornctl: ") + error.what() + "\n");
  }
}

}  // namespace volorn::ctl
