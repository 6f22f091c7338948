#include "volornctl/kept/export_text.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

#include "volornctl/kept/gauges.h"
#include "volornctl/number_option.h"
#include "volornctl/text/json_text.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

// What OTLP's 64 bits of nanoseconds hold; a clock that tells of more, or of a time before 1970, is wrong.
std::int64_t millisecondsOf(const StoredSnapshot& snapshot) {
  constexpr double kMost = 18e12;
  const double milliseconds = snapshot.taken_at.secondsSince1970() * 1e3;
  return milliseconds > 0 ? static_cast<std::int64_t>(std::min(milliseconds, kMost)) : 0;
}

std::string labelValue(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

constexpr std::string_view kInstance = "instance";

const std::string& instanceOf(const Device& device) {
  for (const auto& [name, value] : device.labels) {
    if (name == kInstance) return value;
  }
  return device.id;
}

std::string labelsOf(const Device& device) {
  std::string text = "{instance=" + labelValue(instanceOf(device)) + ",host_id=" + labelValue(device.id);
  for (const auto& [name, value] : device.labels) {
    if (name != kInstance) text += ',' + name + '=' + labelValue(value);
  }
  return text + '}';
}

Json attribute(std::string_view key, const std::string& value) {
  return {{"key", key}, {"value", {{"stringValue", value}}}};
}

// Named by OpenTelemetry's semantic conventions.
Json resourceOf(const Device& device) {
  Json attributes = {attribute("service.name", "volorn"), attribute("service.version", VOLORN_VERSION),
                     attribute("service.instance.id", instanceOf(device)), attribute("host.id", device.id),
                     attribute("os.type", "linux")};
  if (!device.os_name.empty()) attributes.push_back(attribute("os.name", device.os_name));
  if (!device.os_version.empty()) attributes.push_back(attribute("os.version", device.os_version));
  for (const auto& [name, value] : device.labels) {
    if (name != kInstance) attributes.push_back(attribute(name, value));
  }
  return {{"attributes", std::move(attributes)}};
}

Json pointOf(const std::string& value, std::int64_t time_ms) {
  // A number of 64 bits is a text in Protocol Buffers' JSON.
  return {{"timeUnixNano", std::to_string(time_ms * 1'000'000)},
          {"asDouble", numberOf<double>(value).value_or(0)}};
}

}  // namespace

std::string prometheusText(std::span<const StoredSnapshot> snapshots, const Device& device) {
  const std::string labels = labelsOf(device);
  std::string text;
  for (const StoredSnapshot& snapshot : snapshots) {
    const std::string time = std::to_string(millisecondsOf(snapshot));
    for (const Gauge& gauge : gaugesOf(snapshot)) {
      text.append(gauge.name).append(labels).append(" ").append(gauge.value).append(" ").append(time) += '\n';
    }
  }
  return text;
}

std::string otlpJson(std::span<const StoredSnapshot> snapshots, const Device& device) {
  std::vector<Json> metrics;
  std::map<std::string_view, std::size_t> places;
  for (const StoredSnapshot& snapshot : snapshots) {
    const std::int64_t time_ms = millisecondsOf(snapshot);
    for (const Gauge& gauge : gaugesOf(snapshot)) {
      const auto [place, is_new] = places.emplace(gauge.name, metrics.size());
      if (is_new) {
        Json metric = {{"name", gauge.name}, {"description", gauge.help}};
        if (!gauge.unit.empty()) metric["unit"] = gauge.unit;
        metric["gauge"]["dataPoints"] = Json::array();
        metrics.push_back(std::move(metric));
      }
      metrics[place->second]["gauge"]["dataPoints"].push_back(pointOf(gauge.value, time_ms));
    }
  }
  const Json scope = {{"scope", {{"name", "volornctl"}, {"version", VOLORN_VERSION}}}, {"metrics", metrics}};
  const Json of_resource = {{"resource", resourceOf(device)}, {"scopeMetrics", Json::array({scope})}};
  return jsonLine({{"resourceMetrics", Json::array({of_resource})}});
}

}  // namespace volorn::ctl
