#include "volornctl/kept/gauges.h"

#include <optional>

#include "volornctl/kept/key_meaning.h"
#include "volornctl/text/number_text.h"

namespace volorn::ctl {
namespace {

std::string_view baseUnit(Unit unit) {
  switch (unit) {
    case Unit::kTimeOfDay:
    case Unit::kSeconds100x:
      return "s";
    case Unit::kPercent100x:
    case Unit::kPercent:
      return "1";
    case Unit::kLevel:
    case Unit::kYesNo:
    case Unit::kCapacity:
    case Unit::kHundredths:
      return "";
  }
  return "";
}

}  // namespace

std::vector<Gauge> gaugesOf(const linux_host::StoredSnapshot& snapshot) {
  std::vector<Gauge> gauges;
  for (const KeyMeaning& meaning : keyMeanings()) {
    const std::optional<std::int64_t> value = knownValue(snapshot, meaning.key);
    if (!value) continue;
    gauges.push_back({.name = meaning.gauge,
                      .help = meaning.help,
                      .unit = baseUnit(meaning.unit),
                      .value = scaledText(*value, gaugeDigits(meaning.unit))});
  }
  gauges.push_back({.name = "volorn_snapshot_timestamp_seconds",
                    .help = "Time of the snapshot, in seconds since 1970.",
                    .unit = "s",
                    .value = decimalText(snapshot.taken_at.secondsSince1970(), 3)});
  return gauges;
}

}  // namespace volorn::ctl
