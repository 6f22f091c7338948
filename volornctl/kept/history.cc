#include "volornctl/kept/history.h"

#include <algorithm>
#include <array>
#include <utility>

#include "volornctl/choices.h"
#include "volornctl/kept/history_text.h"
#include "volornctl/kept/key_meaning.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/number_option.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;
using linux_host::StoredSnapshot;

constexpr double kSecondsPerDay = 86'400;

Date later(const Date& date, double seconds) {
  return Date::fromSecondsSince1970(date.secondsSince1970() + seconds);
}

Date dateOfOption(const char* option, const std::string& text, const TimeZone& time_zone) {
  if (const std::optional<Date> date = dateOf(text, time_zone)) return *date;
  throw CLI::ValidationError(
      option, "not a day such as 2026-11-23, nor a time such as 2026-11-23T04:05:06Z: " + text);
}

// "90d", "12w" or "2y".
double secondsOfOption(const char* option, const std::string& text) {
  constexpr std::array kUnits = {std::pair{'d', 1}, std::pair{'w', 7}, std::pair{'y', 365}};
  for (const auto& [unit, days] : kUnits) {
    if (!text.ends_with(unit)) continue;
    const auto count = numberOf<std::int32_t>(text.substr(0, text.size() - 1));
    if (count && *count > 0) return static_cast<double>(*count) * days * kSecondsPerDay;
  }
  throw CLI::ValidationError(option, "not a number of days, weeks or years such as 90d, 12w or 2y: " + text);
}

void keepKeys(StoredSnapshot& snapshot, const std::vector<std::string>& names) {
  const auto is_other = [&](const std::string& key) {
    return std::ranges::none_of(names, [&](const std::string& name) { return isNamed(key, name); });
  };
  std::erase_if(snapshot.metrics, [&](const auto& metric) { return is_other(metric.first); });
  std::erase_if(snapshot.unknown, is_other);
}

// Throws where no snapshot of any time holds it, and no key that this program knows is named so.
void checkName(const History& history, const std::string& name) {
  for (const StoredSnapshot& snapshot : history) {
    for (const auto& [key, value] : snapshot.metrics) {
      if (isNamed(key, name)) return;
    }
  }
  refuseUnknownName(name);
}

}  // namespace

History readHistory(const std::string& state_directory, const HistoryChoice& choice) {
  linux_host::StateReader reader(state_directory);
  const auto none = [&](const std::string& what) {
    return StateUnreadable(StateUnreadable::Reason::kNothingYet, reader.path() + ": " + what);
  };
  const bool takes_all = choice.keys.empty() && !choice.since && !choice.until;
  History history =
      reader.newestSnapshots(takes_all ? choice.limit : std::numeric_limits<std::int64_t>::max());
  if (history.empty()) throw none("no snapshot has been taken yet");
  if (takes_all) return history;
  for (const std::string& name : choice.keys) checkName(history, name);
  std::erase_if(history, [&](const StoredSnapshot& snapshot) {
    return (choice.since && !(snapshot.taken_at.secondsSince(*choice.since) >= 0)) ||
           (choice.until && !(snapshot.taken_at.secondsSince(*choice.until) < 0));
  });
  if (history.empty()) throw none("no snapshot was taken in this time");
  if (!choice.keys.empty()) {
    for (StoredSnapshot& snapshot : history) keepKeys(snapshot, choice.keys);
    std::erase_if(history, [](const StoredSnapshot& snapshot) { return snapshot.metrics.empty(); });
    std::string names;
    for (const std::string& name : choice.keys) names += (names.empty() ? "" : " or ") + name;
    if (history.empty()) throw none("none of these snapshots holds " + names);
  }
  const auto kept = static_cast<std::ptrdiff_t>(std::min<std::int64_t>(choice.limit, std::ssize(history)));
  history.erase(history.begin(), history.end() - kept);
  return history;
}

CLI::App* HistoryCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("history", "Show the snapshots of all days");
  command->add_option("--limit", limit_, "The newest so many only")->type_name("N")->check(checkCount);
  command->add_option("--key", keys_, "This key, or group of keys, only; may be given again")
      ->type_name("NAME")
      ->check(offers(keyNames()))
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  CLI::Option* since = command->add_option("--since", since_, "From this day or time on")->type_name("TIME");
  command->add_option("--until", until_, "Up to this time, or to the end of this day")->type_name("TIME");
  command->add_option("--last", last_, "The last days, weeks or years: 90d, 12w, 2y")
      ->type_name("SPAN")
      ->excludes(since);
  CLI::Option* json = command->add_flag("--json", json_, kJsonHelp);
  const auto take_format = [this](const std::string& /*name*/) { csv_ = true; };
  command->add_option_function<std::string>("--format", take_format, "Print another format: csv")
      ->type_name("NAME")
      ->check(oneOf({"csv"}))
      ->excludes(json);
  command->add_flag("--local", local_, "Times are local ones, and not UTC")->excludes(json);
  return command;
}

HistoryChoice HistoryCommand::choiceAt(const Moment& moment) const {
  HistoryChoice choice = {.keys = keys_, .limit = limit_, .since = std::nullopt, .until = std::nullopt};
  const TimeZone& zone = local_ ? moment.time_zone : utc;
  if (since_) choice.since = dateOfOption("--since", *since_, zone);
  if (last_) choice.since = later(moment.now, -secondsOfOption("--last", *last_));
  if (until_) {
    choice.until = dateOfOption("--until", *until_, zone);
    // The end of a day is the beginning of the next, which may be 23 or 25 hours away.
    const bool is_day = until_->size() == std::string_view("2026-11-23").size();
    if (is_day) {
      const auto next = dayText(*daysSince1970(dateOfOption("--until", *until_, utc)) + 1);
      choice.until = next ? dateOf(*next, zone) : std::nullopt;
    }
  }
  return choice;
}

void HistoryCommand::run(const Surroundings& surroundings) {
  const Moment& moment = surroundings.moment;
  const History history = readHistory(stateDirectory(surroundings), choiceAt(moment));
  Output& output = surroundings.output;
  const std::size_t columns = output.isTerminal() ? output.room().columns : 0;
  const HistoryView view = {.now = moment.now,
                            .time_zone = local_ ? moment.time_zone : nullptr,
                            .colour = surroundings.colour,
                            .max_columns = columns};
  if (json_) {
    output.write(historyJson(history));
  } else if (csv_) {
    output.write(historyCsv(history, view));
  } else if (!output.isTerminal()) {
    output.write(historyRows(history, view));
  } else {
    output.write(holdsOneKey(history) ? historyOfDays(history, view) : historyOfKeys(history, view));
  }
}

}  // namespace volorn::ctl
