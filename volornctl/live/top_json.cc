#include "volornctl/live/top_json.h"

#include <utility>

#include "volornctl/text/json_text.h"

namespace volorn::ctl {
namespace {

Json processJson(const ProcessFigures& process) {
  return {{"pid", process.pid},
          {"ppid", process.ppid},
          {"uid", process.uid},
          {"command", process.command},
          {"startedAt", jsonMilliseconds(process.started_at)},
          {"state", stateName(process.state)},
          {"cpuPercent", jsonNumber(process.cpu_percent)},
          {"cpuSeconds", process.cpu_seconds},
          {"threads", process.threads},
          {"descriptors", jsonNumber(process.descriptors)},
          {"residentBytes", process.resident_bytes},
          {"privateBytes", jsonNumber(process.private_bytes)},
          {"virtualBytes", process.virtual_bytes},
          {"footprintBytes", process.footprint_bytes},
          {"faultsPerSecond", jsonNumber(process.faults_per_second)},
          {"majorFaultsPerSecond", jsonNumber(process.major_faults_per_second)},
          {"contextSwitchesPerSecond", jsonNumber(process.context_switches_per_second)}};
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
  Json rows = Json::array();
  for (const ProcessRow& row : processes) rows.push_back(processJson(*row.process));
  document["processes"] = std::move(rows);
  return jsonLine(document);
}

}  // namespace volorn::ctl
