#include "volornctl/kept/metrics.h"

#include <vector>

#include "volornctl/choices.h"
#include "volornctl/kept/key_meaning.h"
#include "volornctl/kept/open_metrics.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/replace_file.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;
using linux_host::StoredSnapshot;

void keepKey(StoredSnapshot& snapshot, const std::string& name) {
  std::erase_if(snapshot.metrics, [&](const auto& metric) { return !isNamed(metric.first, name); });
  if (!snapshot.metrics.empty()) return;
  refuseUnknownName(name);
  throw StateUnreadable(StateUnreadable::Reason::kNothingYet, "the newest snapshot does not hold " + name);
}

// As it is stored.
std::string numberOf(const StoredSnapshot& snapshot, const std::string& name) {
  const std::string& key = snapshot.metrics.front().first;
  for (const auto& [other, value] : snapshot.metrics) {
    if (other != key) throw CLI::ValidationError("--value", "more than one key is named " + name);
  }
  const std::optional<std::int64_t> value = knownValue(snapshot, key);
  if (value) return std::to_string(*value);
  throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                        name + ": not known when the newest snapshot was taken");
}

}  // namespace

StoredSnapshot readNewestSnapshot(const std::string& state_directory) {
  linux_host::StateReader reader(state_directory);
  std::optional<StoredSnapshot> snapshot = reader.newestSnapshot();
  if (!snapshot) {
    throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                          reader.path() + ": no snapshot has been taken yet");
  }
  return *std::move(snapshot);
}

std::string metricsJson(const StoredSnapshot& snapshot) {
  Json metrics = Json::array();
  for (const auto& [key, value] : snapshot.metrics) {
    Json metric;
    metric["key"] = key;
    metric["value"] = value;
    metrics.push_back(std::move(metric));
  }
  Json document;
  document["schema"] = kJsonSchema;
  document["takenAt"] = jsonTime(snapshot.taken_at);
  document["metrics"] = std::move(metrics);
  document["unknown"] = snapshot.unknown;
  return jsonLine(document);
}

std::string metricsTable(const StoredSnapshot& snapshot, const Moment& moment, bool colour) {
  std::vector<Row> rows = {{{.text = "Key", .strong = true},
                            {.text = "Value", .strong = true, .right = true},
                            {.text = "Reading", .strong = true}}};
  for (const auto& [key, value] : snapshot.metrics) {
    addValue(rows.emplace_back(Row{{.text = withoutPrefix(key)}}), snapshot, key, value);
  }
  return table({{{.text = "Taken at", .strong = true}, {.text = timeAround(snapshot.taken_at, moment)}}},
               colour) +
         "\n" + table(rows, colour);
}

CLI::App* MetricsCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("metrics", "Show the newest snapshot");
  CLI::Option* json = command->add_flag("--json", json_, kJsonHelp);
  const auto take_format = [this](const std::string& /*name*/) { open_metrics_ = true; };
  CLI::Option* format =
      command->add_option_function<std::string>("--format", take_format, "Print another format: openmetrics")
          ->type_name("NAME")
          ->check(oneOf({"openmetrics"}))
          ->excludes(json);
  command->add_option("--output", file_, "Replace this file by it, at once and as a whole; - is the output")
      ->type_name("FILE")
      ->needs(format);
  CLI::Option* key = command->add_option("--key", key_, "This key, or group of keys, only")
                         ->type_name("NAME")
                         ->check(offers(keyNames()))
                         ->excludes(format);
  command->add_flag("--value", value_, "Print the number of this key alone")->needs(key)->excludes(json);
  return command;
}

void MetricsCommand::run(const Surroundings& surroundings) {
  StoredSnapshot snapshot = readNewestSnapshot(stateDirectory(surroundings));
  if (key_) keepKey(snapshot, *key_);
  if (value_) {
    surroundings.output.write(numberOf(snapshot, *key_) + "\n");
  } else if (!open_metrics_) {
    surroundings.output.write(json_ ? metricsJson(snapshot)
                                    : metricsTable(snapshot, surroundings.moment, surroundings.colour));
  } else if (file_ && *file_ != "-") {
    replaceFile(*file_, openMetricsText(snapshot));
  } else {
    surroundings.output.write(openMetricsText(snapshot));
  }
}

}  // namespace volorn::ctl
