#include "volornctl/live/readings.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "libtop/libtop.h"
#include "platform/services.h"

namespace volorn::ctl {
namespace {

double secondsBetween(const TimeStamp& before, const TimeStamp& now) {
  return static_cast<double>(now.seconds - before.seconds) +
         static_cast<double>(now.microseconds - before.microseconds) * 1e-6;
}

Rate perSecond(double growth, double seconds) {
  if (growth < 0 || !(seconds > 0)) return std::nullopt;
  return growth / seconds;
}

Rate rateOf(const Total64& now, const Total64& before, double seconds) {
  return perSecond(static_cast<double>(static_cast<std::int64_t>(now.current - before.current)), seconds);
}

Rate rateOf(std::uint32_t now, std::uint32_t before, double seconds) {
  return perSecond(static_cast<double>(static_cast<std::int32_t>(now - before)), seconds);
}

// The kernel adds the times of threads that are counted one by one: a sum may fall by a tick.
Rate processorPercent(const ProcessReading& now, const ProcessReading& before, double seconds) {
  const double used_seconds = secondsBetween(before.processor_time, now.processor_time);
  return perSecond(std::max(used_seconds, 0.0) * 100, seconds);
}

// The kernel's counts of idle ticks are known to fall now and then; the counters wrap.
double ticksBetween(std::uint32_t before, std::uint32_t now) {
  return std::max(static_cast<std::int32_t>(now - before), 0);
}

void addProcessorShares(Sample& sample, const CpuTicks& now, const CpuTicks& before) {
  const double user = ticksBetween(before.user, now.user) + ticksBetween(before.nice, now.nice);
  const double system = ticksBetween(before.system, now.system);
  const double idle = ticksBetween(before.idle, now.idle);
  const double total = user + system + idle;
  if (total == 0) return;
  sample.user_percent = user * 100 / total;
  sample.system_percent = system * 100 / total;
  sample.idle_percent = idle * 100 / total;
}

void addSystemRates(Sample& sample, const MachineReading& now, const MachineReading& before) {
  const SystemSample& a = before.system;
  const SystemSample& b = now.system;
  const double seconds = now.uptime_seconds - before.uptime_seconds;
  sample.interval_seconds = seconds;
  addProcessorShares(sample, b.cpu, a.cpu);
  sample.in_bytes_per_second = rateOf(b.net_in_bytes, a.net_in_bytes, seconds);
  sample.out_bytes_per_second = rateOf(b.net_out_bytes, a.net_out_bytes, seconds);
  sample.read_bytes_per_second = rateOf(b.disk_read_bytes, a.disk_read_bytes, seconds);
  sample.write_bytes_per_second = rateOf(b.disk_write_bytes, a.disk_write_bytes, seconds);
}

void addProcessRates(ProcessFigures& figures, const ProcessReading& now, const ProcessReading& before) {
  const double seconds = now.read_at_seconds - before.read_at_seconds;
  figures.cpu_percent = processorPercent(now, before, seconds);
  figures.faults_per_second = rateOf(now.faults, before.faults, seconds);
  figures.major_faults_per_second = rateOf(now.major_faults, before.major_faults, seconds);
  figures.context_switches_per_second = rateOf(now.context_switches, before.context_switches, seconds);
}

// Null when the process is new.
const ProcessReading* findSame(const MachineReading& reading, const ProcessReading& process) {
  const auto pid_of = [](const ProcessReading& other) { return other.figures.pid; };
  const auto place = std::ranges::lower_bound(reading.processes, process.figures.pid, {}, pid_of);
  const bool is_same = place != reading.processes.end() && place->figures.pid == process.figures.pid &&
                       place->figures.start == process.figures.start;
  return is_same ? &*place : nullptr;
}

double secondsOf(const TimeStamp& time) {
  // One rounding, so that 0.4 s is told as 0.4.
  return static_cast<double>(time.seconds * 1'000'000 + time.microseconds) / 1e6;
}

MoreFigures moreOf(const ProcessSample& psamp) {
  return {.group = static_cast<std::int32_t>(psamp.pgid),
          .running_threads = psamp.running_threads,
          .regions = psamp.region_count,
          .shared_bytes = psamp.shared_resident,
          .private_virtual_bytes = psamp.private_virtual,
          .untouched_bytes = psamp.empty_virtual,
          .libraries_bytes = psamp.shlib_private,
          .kernel_bytes = psamp.kernel_memory[0] + psamp.kernel_memory[2]};
}

}  // namespace

const char* stateName(std::uint32_t state) {
  // By ProcessState, from 1 on.
  static constexpr std::array kNames = {"running", "uninterruptible", "sleeping", "idle",
                                        "stopped", "halted",          "unknown"};
  return state >= 1 && state <= kNames.size() ? kNames[state - 1] : "unknown";
}

ProcessReading readingOf(const ProcessSample& psamp) {
  const auto event = [&](TaskEvent slot) { return static_cast<std::uint32_t>(psamp.events[slot]); };
  return {.figures = {.pid = static_cast<std::int32_t>(psamp.pid),
                      .ppid = static_cast<std::int32_t>(psamp.ppid),
                      .uid = psamp.uid,
                      .command = psamp.command,
                      .started_at = Date::fromSecondsSince1970(secondsOf(psamp.started)),
                      .start = psamp.started.seconds * 1'000'000 + psamp.started.microseconds,
                      .state = psamp.state,
                      .cpu_seconds = secondsOf(psamp.total_time),
                      .threads = psamp.threads,
                      .descriptors = psamp.ports,
                      .resident_bytes = psamp.resident,
                      .private_bytes = psamp.private_resident,
                      .virtual_bytes = psamp.virtual_size,
                      .footprint_bytes = psamp.footprint,
                      .more = moreOf(psamp)},
          .processor_time = psamp.total_time,
          .faults = event(kTaskEventFaults),
          .major_faults = event(kTaskEventPageins),
          .context_switches = event(kTaskEventContextSwitches)};
}

MachineReading takeReading(KernelNotes& notes) {
  notes = {};
  if (libtop_sample(true, false) != 0) throw std::runtime_error("this machine's counters cannot be read");
  MachineReading reading{.at = Current().clock.now(),
                         .uptime_seconds = Current().uptime.UptimeSeconds(),
                         .system = *libtop_tsamp(),
                         .thermal_level = Current().thermal.CurrentThermalLevel()};
  while (const ProcessInfo* pinfo = libtop_piterate()) {
    ProcessReading process = readingOf(pinfo->psamp);
    const auto read_at = notes.read_at_seconds.find(process.figures.pid);
    process.read_at_seconds =
        read_at == notes.read_at_seconds.end() ? reading.uptime_seconds : read_at->second;
    reading.processes.push_back(std::move(process));
  }
  return reading;
}

Sample sampleOf(const MachineReading& now, const MachineReading* before) {
  const SystemSample& system = now.system;
  Sample sample{.at = now.at,
                .threads = system.threads,
                .state_counts = system.state_counts,
                .total_bytes = system.mem_size,
                .available_bytes = now.available_bytes,
                .wired_bytes = system.vm.wire_count * system.page_size,
                .active_bytes = system.vm.active_count * system.page_size,
                .inactive_bytes = system.vm.inactive_count * system.page_size,
                .free_bytes = system.vm.free_count * system.page_size,
                .thermal_level = now.thermal_level};
  for (std::size_t i = 0; i < sample.load.size(); ++i) {
    // In hundredths, as every other program tells them.
    const double load = system.loadavg[i];
    sample.load[i] = std::round(load * 100) / 100;
  }
  if (system.swap_valid) {
    sample.swap_total_bytes = system.swap.total_bytes;
    sample.swap_used_bytes = system.swap.used_bytes;
  }
  if (before) addSystemRates(sample, now, *before);
  sample.processes.reserve(now.processes.size());
  for (const ProcessReading& process : now.processes) {
    ProcessFigures& shown = sample.processes.emplace_back(process.figures);
    const ProcessReading* same = before ? findSame(*before, process) : nullptr;
    if (same) addProcessRates(shown, process, *same);
  }
  return sample;
}

}  // namespace volorn::ctl
