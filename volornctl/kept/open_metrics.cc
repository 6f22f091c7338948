#include "volornctl/kept/open_metrics.h"

#include <optional>

#include "volornctl/kept/key_meaning.h"
#include "volornctl/text/number_text.h"

namespace volorn::ctl {
namespace {

std::string gaugeText(const std::string& name, const char* help, const std::string& value) {
  return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n" + name + " " + value + "\n";
}

}  // namespace

std::string openMetricsText(const linux_host::StoredSnapshot& snapshot) {
  std::string text;
  for (const KeyMeaning& meaning : keyMeanings()) {
    const std::optional<std::int64_t> value = knownValue(snapshot, meaning.key);
    // Never two samples of one gauge, which would spoil the whole text.
    if (value) text += gaugeText(meaning.gauge, meaning.help, scaledText(*value, gaugeDigits(meaning.unit)));
  }
  text += gaugeText("volorn_snapshot_timestamp_seconds", "Time of the snapshot, in seconds since 1970.",
                    decimalText(snapshot.taken_at.secondsSince1970(), 3));
  return text + "# EOF\n";
}

}  // namespace volorn::ctl
