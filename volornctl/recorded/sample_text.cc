#include "volornctl/recorded/sample_text.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

using Json = nlohmann::json;

// A cast of a number that does not fit is undefined.
template <typename Integer>
Integer integerOf(const Json& value) {
  const bool fits = value.is_number_unsigned()
                        ? value.get<std::uint64_t>() <= std::uint64_t{std::numeric_limits<Integer>::max()}
                        : value.is_number_integer() && std::numeric_limits<Integer>::is_signed &&
                              value.get<std::int64_t>() >= std::int64_t{std::numeric_limits<Integer>::min()};
  if (!fits) throw std::runtime_error("a number of another kind");
  return value.get<Integer>();
}

void take(const Json& value, std::int32_t& figure) {
  figure = integerOf<std::int32_t>(value);
}
void take(const Json& value, std::uint32_t& figure) {
  figure = integerOf<std::uint32_t>(value);
}
void take(const Json& value, std::uint64_t& figure) {
  if (!value.is_number_unsigned()) throw std::runtime_error("a number of another kind");
  figure = value.get<std::uint64_t>();
}
void take(const Json& value, double& figure) {
  if (!value.is_number()) throw std::runtime_error("no number");
  figure = value.get<double>();
}
void take(const Json& value, std::string& figure) {
  figure = value.get<std::string>();
}
template <typename Figure>
void take(const Json& value, std::optional<Figure>& figure) {
  if (!value.is_null()) take(value, figure.emplace());
}

// To the millisecond; null is no date.
void take(const Json& value, Date& figure) {
  figure = Date::fromSecondsSince1970(std::numeric_limits<double>::quiet_NaN());
  if (value.is_null()) return;
  std::string text = value.get<std::string>();
  constexpr std::size_t kPart = 5;  // ".123Z"
  if (text.size() < kPart || text[text.size() - kPart] != '.') throw std::runtime_error("no time");
  const int milliseconds = std::stoi(text.substr(text.size() - kPart + 1, 3));
  text.replace(text.size() - kPart, kPart, "Z");
  const std::optional<Date> date = dateOf(text, utc);
  if (!date) throw std::runtime_error("no time");
  figure = Date::fromSecondsSince1970(date->secondsSince1970() + milliseconds / 1000.0);
}

std::uint32_t stateNamed(const std::string& name) {
  std::uint32_t state = kProcessRunning;
  while (state < kProcessUnknown && name != stateName(state)) ++state;
  return state;
}

ProcessFigures processOf(const Json& json) {
  ProcessFigures process;
  take(json.at("pid"), process.pid);
  take(json.at("ppid"), process.ppid);
  take(json.at("uid"), process.uid);
  take(json.at("command"), process.command);
  take(json.at("startedAt"), process.started_at);
  process.state = stateNamed(json.at("state").get<std::string>());
  take(json.at("cpuPercent"), process.cpu_percent);
  take(json.at("cpuSeconds"), process.cpu_seconds);
  take(json.at("threads"), process.threads);
  take(json.at("descriptors"), process.descriptors);
  take(json.at("residentBytes"), process.resident_bytes);
  take(json.at("privateBytes"), process.private_bytes);
  take(json.at("virtualBytes"), process.virtual_bytes);
  take(json.at("footprintBytes"), process.footprint_bytes);
  take(json.at("faultsPerSecond"), process.faults_per_second);
  take(json.at("majorFaultsPerSecond"), process.major_faults_per_second);
  take(json.at("contextSwitchesPerSecond"), process.context_switches_per_second);
  // Times of start are told with what the sampler's reading of two clocks is apart.
  const double start = process.started_at.secondsSince1970();
  process.start = std::isfinite(start) ? std::llround(start * 10) : 0;
  return process;
}

Sample sampleOf(const Json& json) {
  Sample sample;
  take(json.at("at"), sample.at);
  take(json.at("intervalSeconds"), sample.interval_seconds);
  const Json& cpu = json.at("cpu");
  take(cpu.at("userPercent"), sample.user_percent);
  take(cpu.at("systemPercent"), sample.system_percent);
  take(cpu.at("idlePercent"), sample.idle_percent);
  for (std::size_t i = 0; i < sample.load.size(); ++i) take(json.at("load").at(i), sample.load[i]);
  take(json.at("threads"), sample.threads);
  for (std::uint32_t state = kProcessRunning; state <= kProcessUnknown; ++state) {
    take(json.at("states").at(stateName(state)), sample.state_counts[state]);
  }
  const Json& memory = json.at("memory");
  take(memory.at("totalBytes"), sample.total_bytes);
  take(memory.at("availableBytes"), sample.available_bytes);
  take(memory.at("wiredBytes"), sample.wired_bytes);
  take(memory.at("activeBytes"), sample.active_bytes);
  take(memory.at("inactiveBytes"), sample.inactive_bytes);
  take(memory.at("freeBytes"), sample.free_bytes);
  take(json.at("swap").at("totalBytes"), sample.swap_total_bytes);
  take(json.at("swap").at("usedBytes"), sample.swap_used_bytes);
  take(json.at("network").at("inBytesPerSecond"), sample.in_bytes_per_second);
  take(json.at("network").at("outBytesPerSecond"), sample.out_bytes_per_second);
  take(json.at("disk").at("readBytesPerSecond"), sample.read_bytes_per_second);
  take(json.at("disk").at("writeBytesPerSecond"), sample.write_bytes_per_second);
  const Json& processes = json.at("processes");
  sample.processes.reserve(processes.size());
  for (const Json& process : processes) sample.processes.push_back(processOf(process));
  return sample;
}

}  // namespace

std::optional<Sample> sampleOfLine(std::string_view line, Parse parse) {
  try {
    if (parse == Parse::kAll) return sampleOf(Json::parse(line));
    constexpr std::string_view kLast = "\"processes\":[";
    const std::size_t end = line.find(kLast);
    if (end == std::string_view::npos) return std::nullopt;
    return sampleOf(Json::parse(std::string(line.substr(0, end + kLast.size())) + "]}"));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace volorn::ctl
