#include "snapshot/voLornTop.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>

#include "platform/rounded.h"
#include "platform/services.h"
#include "snapshot/saturate.h"

namespace volorn {
namespace {

constexpr std::size_t kSummaryCapacityHint = 10;
constexpr std::size_t kProcessCapacityHint = 22;

constexpr std::int32_t kMicrosecondsPerSecond = 1'000'000;

// A key and where its value comes from.
template <typename Source>
struct Row {
  std::string_view key;
  Source source;
};

template <typename Source, std::size_t count>
constexpr bool haveDistinctKeys(const std::array<Row<Source>, count>& rows) {
  std::array<std::string_view, count> keys;
  std::transform(rows.begin(), rows.end(), keys.begin(), [](const auto& row) { return row.key; });
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) == keys.end();
}

constexpr auto kTotalRates = std::to_array<Row<Total64 SystemSample::*>>({
    {"Network/Input Packet Count", &SystemSample::net_in_packets},
    {"Network/Input", &SystemSample::net_in_bytes},
    {"Network/Output Packet Count", &SystemSample::net_out_packets},
    {"Network/Output", &SystemSample::net_out_bytes},
    {"Disk/Read Count", &SystemSample::disk_read_ops},
    {"Disk/Read", &SystemSample::disk_read_bytes},
    {"Disk/Write Count", &SystemSample::disk_write_ops},
    {"Disk/Write", &SystemSample::disk_write_bytes},
});
static_assert(kTotalRates.size() == 8 && haveDistinctKeys(kTotalRates));

constexpr auto kVmRates = std::to_array<Row<std::uint64_t VmStatistics64::*>>({
    {"VM Faults/Pageins", &VmStatistics64::pageins},
    {"VM Faults/Pageouts", &VmStatistics64::pageouts},
    {"VM Faults/Total Faults", &VmStatistics64::faults},
    {"VM Faults/COW Faults", &VmStatistics64::cow_faults},
    {"VM Faults/Zero Fill Faults", &VmStatistics64::zero_fill_count},
    {"VM Faults/Reactivations", &VmStatistics64::reactivations},
});
static_assert(kVmRates.size() == 6 && haveDistinctKeys(kVmRates));

// Not in the order of the events: the two kinds of system calls have changed places.
constexpr auto kEventRates = std::to_array<Row<TaskEvent>>({
    {"Virtual Memory/Total Faults", kTaskEventFaults},
    {"Virtual Memory/Pageins", kTaskEventPageins},
    {"Virtual Memory/COW Faults", kTaskEventCowFaults},
    {"Mach Messages/Sent", kTaskEventMessagesSent},
    {"Mach Messages/Received", kTaskEventMessagesReceived},
    {"System Calls/BSD", kTaskEventSyscallsBsd},
    {"System Calls/Mach", kTaskEventSyscallsMach},
    {"Context Switches", kTaskEventContextSwitches},
});
static_assert(kEventRates.size() == kTaskEventCount && haveDistinctKeys(kEventRates));

constexpr auto kProcessSizes = std::to_array<Row<std::uint64_t ProcessSample::*>>({
    {"Memory Regions/Resident Size (Private)", &ProcessSample::private_resident},
    {"Memory Regions/Resident Size (Shared)", &ProcessSample::shared_resident},
    {"Memory Regions/Resident Size", &ProcessSample::resident},
    {"Memory Regions/Virtual Size", &ProcessSample::virtual_size},
});
static_assert(kProcessSizes.size() == 4 && haveDistinctKeys(kProcessSizes));

// The sampler's counts and sizes are unsigned; most are told with a sign, their bits unchanged.
constexpr std::int32_t asI32(std::uint32_t bits) {
  return static_cast<std::int32_t>(bits);
}

constexpr std::int64_t asI64(std::uint64_t bits) {
  return static_cast<std::int64_t>(bits);
}

void addProcessCounts(ActivitySummary& summary, const SystemSample& sample) {
  const auto& counts = sample.state_counts;
  summary.insert("Processes/Total", asI32(std::accumulate(counts.begin(), counts.end(), std::uint32_t{0})));
  summary.insert("Processes/Running", asI32(counts[kProcessRunning]));
  summary.insert("Processes/Sleeping", asI32(counts[kProcessSleeping]));
  summary.insert("Kernel Resources/Threads", asI32(sample.threads));
}

void addLoadAverages(ActivitySummary& summary, const SystemSample& sample) {
  summary.insert("Load/1-Minute", double{sample.loadavg[0]});
  summary.insert("Load/5-Minute", double{sample.loadavg[1]});
  summary.insert("Load/15-Minute", double{sample.loadavg[2]});
}

void addProcessorShares(ActivitySummary& summary, const SystemSample& sample) {
  const CpuTicks& now = sample.cpu;
  const CpuTicks& before = sample.cpu_prev;
  const std::uint32_t user = (now.user + now.nice) - (before.user + before.nice);
  const std::uint32_t system = now.system - before.system;
  const std::uint32_t idle = now.idle - before.idle;
  const std::uint64_t total = std::uint64_t{user} + system + idle;
  // In single precision, so that the three need not add up to 100.
  const auto percent = [total](std::uint32_t ticks) -> double {
    if (total == 0) return 0.0F;
    const float product = rounded(rounded(static_cast<float>(ticks)) * 100.0F);
    return rounded(product / rounded(static_cast<float>(total)));
  };
  summary.insert("CPU/%User", percent(user));
  summary.insert("CPU/%System", percent(system));
  summary.insert("CPU/%Idle", percent(idle));
}

void addMemory(ActivitySummary& summary, const SystemSample& sample) {
  summary.insert("Shared Libraries/Count", asI32(sample.shlib_code_regions));
  summary.insert("Shared Libraries/Resident Code Size", sample.shlib_code);
  summary.insert("Shared Libraries/Resident Data Size", sample.shlib_data);
  summary.insert("Shared Libraries/LinkEdit Size", sample.shlib_readonly);

  summary.insert("Memory Regions/Count", asI32(sample.region_count_total));
  summary.insert("Memory Regions/Resident Size",
                 asI64(sample.private_resident_total - sample.shlib_private_total));
  summary.insert("Memory Regions/Resident Size (Private)", asI64(sample.private_resident_total));
  summary.insert("Memory Regions/Resident Size (Shared)", asI64(sample.shared_resident_total));

  const VmStatistics64& vm = sample.vm;
  const auto bytes = [&](std::uint32_t pages) { return asI64(pages * sample.page_size); };
  summary.insert("Physical Memory/Wired", bytes(vm.wire_count));
  summary.insert("Physical Memory/Active", bytes(vm.active_count));
  summary.insert("Physical Memory/Inactive", bytes(vm.inactive_count));
  summary.insert("Physical Memory/Used", bytes(vm.active_count + vm.wire_count + vm.inactive_count));
  summary.insert("Physical Memory/Free", bytes(vm.free_count));
}

// The fall of a counter is a huge rise.
double rateOf(std::uint64_t now, std::uint64_t before, double divisor_seconds) {
  return rounded(static_cast<double>(now - before)) / divisor_seconds;
}

void addRates(ActivitySummary& summary, const SystemSample& sample, double divisor_seconds) {
  for (const auto& [key, total] : kTotalRates) {
    const double rate = rateOf((sample.*total).current, (sample.*total).previous, divisor_seconds);
    summary.insert(key, saturateTo<std::int64_t>(rate));
  }
  for (const auto& [key, counter] : kVmRates) {
    const double rate = rateOf(sample.vm.*counter, sample.vm_prev.*counter, divisor_seconds);
    summary.insert(key, saturateTo<std::uint32_t>(rate));
  }
}

// Wraps where the later moment is the earlier one.
std::uint64_t microsecondsBetween(const TimeStamp& before, const TimeStamp& now) {
  auto seconds = static_cast<std::uint64_t>(now.seconds) - static_cast<std::uint64_t>(before.seconds);
  std::int32_t microseconds = now.microseconds - before.microseconds;
  if (microseconds < 0) {
    --seconds;
    microseconds += kMicrosecondsPerSecond;
  }
  return seconds * kMicrosecondsPerSecond + static_cast<std::uint64_t>(microseconds);
}

double processorPercent(const SystemSample& sample, const ProcessSample& psamp) {
  if (psamp.seq_prev == 0) return 0.0;
  const std::uint64_t used = microsecondsBetween(psamp.total_time_prev, psamp.total_time);
  const std::uint64_t passed = microsecondsBetween(sample.time_prev, sample.time);
  return rounded(static_cast<double>(used)) * 100.0 / rounded(static_cast<double>(passed));
}

std::int32_t eventRate(const ProcessSample& psamp, TaskEvent event, double divisor_seconds) {
  const auto now = static_cast<std::uint32_t>(psamp.events[event]);
  const auto before = static_cast<std::uint32_t>(psamp.events_prev[event]);
  return toInt32Trunc(static_cast<double>(asI32(now - before)) / divisor_seconds);
}

// Whole seconds since 1970, not those since the last sample: the rates are meant so.
double readDivisorSeconds() {
  TimeStamp now = {};
  Current().kernel.gettimeofday(now);
  const std::int64_t seconds = now.seconds + now.microseconds / kMicrosecondsPerSecond;
  return static_cast<double>(seconds);
}

std::string processKey(const ProcessSample& psamp) {
  return psamp.command + "_" + std::to_string(asI32(psamp.pid));
}

}  // namespace

ActivitySummary systemSummary(const SystemSample& sample, double divisor_seconds) {
  ActivitySummary summary(kSummaryCapacityHint);
  addProcessCounts(summary, sample);
  addLoadAverages(summary, sample);
  addProcessorShares(summary, sample);
  addMemory(summary, sample);
  addRates(summary, sample, divisor_seconds);
  if (sample.swap_valid) {
    summary.insert("Swap/Available", sample.swap.available_bytes);
    summary.insert("Swap/Used", sample.swap.used_bytes);
  }
  return summary;
}

ActivitySummary processSummary(const SystemSample& sample, const ProcessSample& psamp,
                               double divisor_seconds) {
  ActivitySummary summary(kProcessCapacityHint);
  summary.insert("Command", psamp.command);
  summary.insert("pid", psamp.pid);
  summary.insert("CPU/%CPU", processorPercent(sample, psamp));
  for (const auto& [key, event] : kEventRates) summary.insert(key, eventRate(psamp, event, divisor_seconds));
  summary.insert("Kernel Resources/Threads", asI32(psamp.threads));
  summary.insert("Kernel Resources/Mach Ports", asI32(psamp.ports));
  summary.insert("Memory Regions/Count", std::int64_t{psamp.region_count});
  for (const auto& [key, size] : kProcessSizes) summary.insert(key, asI64(psamp.*size));
  return summary;
}

std::optional<ActivitySummary> voLornTop::_getTopData() {
  if (libtop_init(nullptr, nullptr) != 0) return std::nullopt;
  // After a failed sample the sampler stays started: the next start begins afresh over what is left.
  if (libtop_sample(true, true) != 0) return std::nullopt;
  const SystemSample& sample = *libtop_tsamp();
  const double divisor_seconds = readDivisorSeconds();
  ActivitySummary summary = systemSummary(sample, divisor_seconds);
  ActivitySummary processes;
  while (const ProcessInfo* pinfo = libtop_piterate()) {
    const ProcessSample& psamp = pinfo->psamp;
    processes.insert(processKey(psamp), processSummary(sample, psamp, divisor_seconds));
  }
  summary.insert("Process Stats", std::move(processes));
  libtop_fini();
  return summary;
}

}  // namespace volorn
