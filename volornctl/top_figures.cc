#include "volornctl/top_figures.h"

#include <algorithm>
#include <cmath>

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

void addProcessorShares(TopFigures& figures, const CpuTicks& now, const CpuTicks& before) {
  const double user = ticksBetween(before.user, now.user) + ticksBetween(before.nice, now.nice);
  const double system = ticksBetween(before.system, now.system);
  const double idle = ticksBetween(before.idle, now.idle);
  const double total = user + system + idle;
  if (total == 0) return;
  figures.user_percent = user * 100 / total;
  figures.system_percent = system * 100 / total;
  figures.idle_percent = idle * 100 / total;
}

void addSystemRates(TopFigures& figures, const TopSample& now, const TopSample& before) {
  const SystemSample& a = before.system;
  const SystemSample& b = now.system;
  const double seconds = now.uptime_seconds - before.uptime_seconds;
  figures.interval_seconds = seconds;
  addProcessorShares(figures, b.cpu, a.cpu);
  figures.in_bytes_per_second = rateOf(b.net_in_bytes, a.net_in_bytes, seconds);
  figures.out_bytes_per_second = rateOf(b.net_out_bytes, a.net_out_bytes, seconds);
  figures.read_bytes_per_second = rateOf(b.disk_read_bytes, a.disk_read_bytes, seconds);
  figures.write_bytes_per_second = rateOf(b.disk_write_bytes, a.disk_write_bytes, seconds);
}

ProcessFigures processFigures(const ProcessReading& reading) {
  return {.pid = reading.pid,
          .command = reading.command,
          .state = reading.state,
          .threads = reading.threads,
          .resident_bytes = reading.resident_bytes,
          .private_bytes = reading.private_bytes,
          .virtual_bytes = reading.virtual_bytes};
}

void addProcessRates(ProcessFigures& figures, const ProcessReading& now, const ProcessReading& before) {
  const double seconds = now.read_at_seconds - before.read_at_seconds;
  figures.cpu_percent = processorPercent(now, before, seconds);
  figures.faults_per_second = rateOf(now.faults, before.faults, seconds);
  figures.context_switches_per_second = rateOf(now.context_switches, before.context_switches, seconds);
}

// Null when the process is new.
const ProcessReading* findSame(const TopSample& sample, const ProcessReading& process) {
  const auto place = std::ranges::lower_bound(sample.processes, process.pid, {}, &ProcessReading::pid);
  const bool is_same =
      place != sample.processes.end() && place->pid == process.pid && place->started == process.started;
  return is_same ? &*place : nullptr;
}

Rate orderedBy(const ProcessFigures& figures, TopOrder order) {
  switch (order) {
    case TopOrder::kCpu:
      return figures.cpu_percent;
    case TopOrder::kPrivate:
      return static_cast<double>(figures.private_bytes);
    case TopOrder::kResident:
      return static_cast<double>(figures.resident_bytes);
    case TopOrder::kFaults:
      return figures.faults_per_second;
    case TopOrder::kSwitches:
      return figures.context_switches_per_second;
  }
  return std::nullopt;
}

}  // namespace

ProcessReading readingOf(const ProcessSample& psamp) {
  return {.pid = static_cast<std::int32_t>(psamp.pid),
          .started = psamp.started,
          .command = psamp.command,
          .state = psamp.state,
          .processor_time = psamp.total_time,
          .threads = psamp.threads,
          .resident_bytes = psamp.resident,
          .private_bytes = psamp.private_resident + psamp.shlib_private,
          .virtual_bytes = psamp.virtual_size,
          .faults = static_cast<std::uint32_t>(psamp.events[kTaskEventFaults]),
          .context_switches = static_cast<std::uint32_t>(psamp.events[kTaskEventContextSwitches])};
}

TopFigures figuresOf(const TopSample& now, const TopSample* before) {
  const SystemSample& system = now.system;
  TopFigures figures{.at = now.at};
  for (std::size_t i = 0; i < figures.load.size(); ++i) {
    // The kernel tells hundredths, of which the sampler keeps the nearest single-precision number.
    figures.load[i] = std::round(double{system.loadavg[i]} * 100) / 100;
  }
  figures.threads = system.threads;
  figures.wired_bytes = system.vm.wire_count * system.page_size;
  figures.active_bytes = system.vm.active_count * system.page_size;
  figures.inactive_bytes = system.vm.inactive_count * system.page_size;
  figures.free_bytes = system.vm.free_count * system.page_size;
  if (before) addSystemRates(figures, now, *before);
  figures.processes.reserve(now.processes.size());
  for (const ProcessReading& process : now.processes) {
    ProcessFigures& shown = figures.processes.emplace_back(processFigures(process));
    const ProcessReading* same = before ? findSame(*before, process) : nullptr;
    if (same) addProcessRates(shown, process, *same);
  }
  return figures;
}

void sortProcesses(std::vector<ProcessFigures>& processes, TopOrder order) {
  // None is less than any number.
  std::ranges::stable_sort(processes, [order](const ProcessFigures& a, const ProcessFigures& b) {
    return orderedBy(a, order) > orderedBy(b, order);
  });
}

}  // namespace volorn::ctl
