#include "volornctl/metrics.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <vector>

#include "snapshot/snapshot_keys.h"
#include "volornctl/json_text.h"
#include "volornctl/number_text.h"
#include "volornctl/open_metrics.h"
#include "volornctl/replace_file.h"
#include "volornctl/state_choice.h"
#include "volornctl/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;
using linux_host::StoredSnapshot;

std::string hundredths(std::int64_t value) {
  return scaledText(value, 2);
}

std::string plain(std::int64_t /*value*/) {
  return "";
}

std::string timeOfDay(std::int64_t seconds) {
  if (seconds < 0 || seconds >= 86'400) return "";
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return text;
}

std::string seconds100x(std::int64_t value) {
  if (value < 60 * 100) return hundredths(value) + " s";
  // The number that was too large for the daemon's conversion, or just met it.
  const bool saturated = value == std::numeric_limits<std::int32_t>::max();
  return (saturated ? "at least " : "") + duration(value / 100);
}

std::string percent100x(std::int64_t value) {
  return hundredths(value) + " %";
}

std::string percent(std::int64_t value) {
  return std::to_string(value) + " %";
}

std::string yesOrNo(std::int64_t value) {
  return value == 0 ? "no" : "yes";
}

std::string thermalLevel(std::int64_t value) {
  constexpr std::array kLevels = {"none", "active", "passive", "hot", "critical"};
  return value >= 0 && value < std::ssize(kLevels) ? kLevels[static_cast<std::size_t>(value)] : "";
}

struct Reader {
  std::string_view key;
  std::string (*read)(std::int64_t value);
};

constexpr std::array kReaders = {
    Reader{snapshot_key::kWakeup, timeOfDay},         Reader{snapshot_key::kPlanned, timeOfDay},
    Reader{snapshot_key::kNext, timeOfDay},           Reader{snapshot_key::kThermalLevel, thermalLevel},
    Reader{snapshot_key::kUsage, seconds100x},        Reader{snapshot_key::kStandby, seconds100x},
    Reader{snapshot_key::kFullyChargedOnce, yesOrNo}, Reader{snapshot_key::kCharged, percent100x},
    Reader{snapshot_key::kMaxCapacity, plain},  // its unit depends on the battery
    Reader{snapshot_key::kPluggedIn, yesOrNo},        Reader{snapshot_key::kFullyCharged, yesOrNo},
    Reader{snapshot_key::kBacklight, percent100x},    Reader{snapshot_key::kUptime, seconds100x},
    Reader{snapshot_key::kLoad1, hundredths},         Reader{snapshot_key::kLoad5, hundredths},
    Reader{snapshot_key::kLoad15, hundredths},        Reader{snapshot_key::kJetsamLevel, percent},
};

static_assert(std::equal(kReaders.begin(), kReaders.end(), snapshot_key::kAll.begin(),
                         snapshot_key::kAll.end(),
                         [](const Reader& reader, std::string_view key) { return reader.key == key; }));

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
  return jsonLine(document);
}

std::string metricsTable(const StoredSnapshot& snapshot, const Moment& moment, bool colour) {
  std::vector<Row> rows = {{{.text = "Key", .strong = true},
                            {.text = "Value", .strong = true, .right = true},
                            {.text = "Reading", .strong = true}}};
  for (const auto& [key, value] : snapshot.metrics) {
    rows.push_back({{.text = withoutPrefix(key)},
                    {.text = std::to_string(value), .right = true},
                    {.text = reading(key, value)}});
  }
  return table({{{.text = "Taken at", .strong = true}, {.text = timeAround(snapshot.taken_at, moment)}}},
               colour) +
         "\n" + table(rows, colour);
}

std::string withoutPrefix(std::string_view key) {
  if (key.starts_with(snapshot_key::kPrefix)) key.remove_prefix(snapshot_key::kPrefix.size());
  return std::string(key);
}

bool isKnown(std::string_view key, std::int64_t value) {
  // The query for the times leaves its outputs at -1.0 where it fails.
  if (key == snapshot_key::kUsage || key == snapshot_key::kStandby) return value != -100;
  // The daemon writes a charge so when it knows what is left but not of how much.
  return key != snapshot_key::kCharged || value != -10000;
}

std::string reading(std::string_view key, std::int64_t value) {
  if (!isKnown(key, value)) return "not known";
  const auto* reader = std::find_if(kReaders.begin(), kReaders.end(),
                                    [=](const Reader& candidate) { return candidate.key == key; });
  return reader == kReaders.end() ? "" : reader->read(value);
}

CLI::App* MetricsCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("metrics", "Show the newest snapshot");
  CLI::Option* json = command->add_flag("--json", json_, kJsonHelp);
  const auto take_format = [this](const std::string& name) {
    if (name != "openmetrics") throw CLI::ValidationError("--format", "not a format: " + name);
    open_metrics_ = true;
  };
  CLI::Option* format =
      command->add_option_function<std::string>("--format", take_format, "Print another format: openmetrics")
          ->type_name("NAME")
          ->excludes(json);
  command->add_option("--output", file_, "Replace this file by it, at once and as a whole")
      ->type_name("FILE")
      ->needs(format);
  return command;
}

void MetricsCommand::run(const Surroundings& surroundings) {
  const StoredSnapshot snapshot = readNewestSnapshot(stateDirectory(surroundings));
  if (!open_metrics_) {
    surroundings.output.write(json_ ? metricsJson(snapshot)
                                    : metricsTable(snapshot, surroundings.moment, surroundings.colour));
  } else if (file_) {
    replaceFile(*file_, openMetricsText(snapshot));
  } else {
    surroundings.output.write(openMetricsText(snapshot));
  }
}

}  // namespace volorn::ctl
