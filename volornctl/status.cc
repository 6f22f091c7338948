#include "volornctl/status.h"

#include <variant>

#include "platform/linux/state/state_reader.h"
#include "platform/names.h"
#include "volornctl/json_text.h"
#include "volornctl/state_choice.h"
#include "volornctl/table.h"

namespace volorn::ctl {
namespace {

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

}  // namespace

Status readStatus(const std::string& state_directory) {
  linux_host::StateReader reader(state_directory);
  Status status{
      .state_file = reader.path(),
      .next_planned_wakeup_time = preference<Date>(reader, kNextPlannedWakeupTimeKey),
      .last_wakeup_time = preference<Date>(reader, kLastWakeupTimeKey),
      .last_log_dumped_day_since_1970 = preference<std::int64_t>(reader, kLastLogDumpedDayKey),
  };
  if (const std::optional<JobDescription> job = reader.job(kJobName)) {
    status.job = Status::Window{.start = Date::fromSecondsSinceReferenceDate(job->window_start_time),
                                .end = Date::fromSecondsSinceReferenceDate(job->window_end_time)};
  }
  return status;
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
  return jsonLine(document);
}

std::string statusTable(const Status& status, const Moment& moment, bool colour) {
  const auto row = [](const char* label, const std::string& text) -> Row {
    return {{.text = label, .strong = true}, {.text = text}};
  };
  return table(
      {
          row("State file", status.state_file),
          row("Next planned wake-up", dateText(status.next_planned_wakeup_time, moment)),
          row("Last wake-up", dateText(status.last_wakeup_time, moment)),
          row("Last snapshot", snapshotDayText(status.last_log_dumped_day_since_1970)),
          row("Job window", windowText(status.job, moment.now)),
      },
      colour);
}

CLI::App* StatusCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("status", "Show the plan, the last wake-up and the job");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void StatusCommand::run(const Surroundings& surroundings) {
  const Status status = readStatus(stateDirectory(surroundings));
  surroundings.output.write(json_ ? statusJson(status)
                                  : statusTable(status, surroundings.moment, surroundings.colour));
}

}  // namespace volorn::ctl
