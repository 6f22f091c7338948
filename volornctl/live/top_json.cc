#include "volornctl/live/top_json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string_view>
#include <type_traits>
#include <utility>

#include "volornctl/text/json_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

// Writes an object of a sample's processes. By hand, for there may be tens of thousands, and a document of
// them would take longer than the sample.
class ProcessText {
 public:
  explicit ProcessText(std::string& text) : text_(text) {}

  void add(const char* key, std::string_view value) {
    const bool is_plain = std::ranges::all_of(value, [](char character) {
      return character >= ' ' && character <= '~' && character != '"' && character != '\\';
    });
    begin(key);
    if (is_plain) {
      text_.append(1, '"').append(value).append(1, '"');
    } else {
      text_ += jsonText(Json(value));
    }
  }
  template <typename Number>
  void add(const char* key, Number value) {
    begin(key);
    if constexpr (std::is_integral_v<Number>) {
      std::array<char, 24> digits = {};
      text_.append(digits.begin(), std::to_chars(digits.begin(), digits.end(), value).ptr);
    } else {
      text_ += value == 0 && !std::signbit(value) ? "0.0" : jsonText(Json(value));
    }
  }
  template <typename Value>
  void add(const char* key, const std::optional<Value>& value) {
    if (value) return add(key, *value);
    begin(key);
    text_ += "null";
  }
  void end() { text_ += '}'; }

 private:
  void begin(const char* key) {
    text_.append(1, std::exchange(mark_, ',')).append(1, '"').append(key).append("\":");
  }

  std::string& text_;
  char mark_ = '{';
};

void addProcess(std::string& text, const ProcessFigures& process) {
  ProcessText object(text);
  const std::optional<std::string> started_at = rfc3339Milliseconds(process.started_at);
  object.add("pid", process.pid);
  object.add("ppid", process.ppid);
  object.add("uid", process.uid);
  object.add("command", std::string_view(process.command));
  object.add("startedAt", started_at ? std::optional<std::string_view>(*started_at) : std::nullopt);
  object.add("state", std::string_view(stateName(process.state)));
  object.add("cpuPercent", process.cpu_percent);
  object.add("cpuSeconds", process.cpu_seconds);
  object.add("threads", process.threads);
  object.add("descriptors", process.descriptors);
  object.add("residentBytes", process.resident_bytes);
  object.add("privateBytes", process.private_bytes);
  object.add("virtualBytes", process.virtual_bytes);
  object.add("footprintBytes", process.footprint_bytes);
  object.add("faultsPerSecond", process.faults_per_second);
  object.add("majorFaultsPerSecond", process.major_faults_per_second);
  object.add("contextSwitchesPerSecond", process.context_switches_per_second);
  object.end();
}

}  // namespace

std::string topJson(const Sample& sample, const ProcessList& processes) {
  Json document;
  document["schema"] = kJsonSchema;
  document["at"] = jsonMilliseconds(sample.at);
  document["intervalSeconds"] = jsonNumber(sample.interval_seconds);
  document["cpu"] = {{"userPercent", jsonNumber(sample.user_percent)},
                     {"systemPercent", jsonNumber(sample.system_percent)},
                     {"idlePercent", jsonNumber(sample.idle_percent)}};
  document["load"] = sample.load;
  document["threads"] = sample.threads;
  Json& states = document["states"] = Json::object();
  for (std::uint32_t state = kProcessRunning; state <= kProcessUnknown; ++state) {
    states[stateName(state)] = sample.state_counts[state];
  }
  document["memory"] = {
      {"totalBytes", sample.total_bytes},       {"availableBytes", jsonNumber(sample.available_bytes)},
      {"wiredBytes", sample.wired_bytes},       {"activeBytes", sample.active_bytes},
      {"inactiveBytes", sample.inactive_bytes}, {"freeBytes", sample.free_bytes}};
  document["swap"] = {{"totalBytes", jsonNumber(sample.swap_total_bytes)},
                      {"usedBytes", jsonNumber(sample.swap_used_bytes)}};
  document["network"] = {{"inBytesPerSecond", jsonNumber(sample.in_bytes_per_second)},
                         {"outBytesPerSecond", jsonNumber(sample.out_bytes_per_second)}};
  document["disk"] = {{"readBytesPerSecond", jsonNumber(sample.read_bytes_per_second)},
                      {"writeBytesPerSecond", jsonNumber(sample.write_bytes_per_second)}};
  std::string text = jsonText(document);
  text.back() = ',';
  text += "\"processes\":[";
  for (const ProcessRow& row : processes) {
    addProcess(text, *row.process);
    text += ',';
  }
  if (text.ends_with(',')) text.pop_back();
  return text + "]}\n";
}

}  // namespace volorn::ctl
