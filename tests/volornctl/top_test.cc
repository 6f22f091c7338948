#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "volornctl/top_figures.h"
#include "volornctl/top_text.h"

namespace volorn::ctl {
namespace {

constexpr double kNow = 1795406706.0;  // 2026-11-23 04:05:06 UTC

ProcessReading worker(std::int32_t pid) {
  return {.pid = pid,
          .started = {.seconds = 5, .microseconds = 10'000},
          .command = "worker",
          .state = kProcessSleeping,
          .processor_time = {.seconds = 1, .microseconds = 900'000},
          .threads = 3,
          .resident_bytes = 4096,
          .private_bytes = 2048,
          .virtual_bytes = 1 << 20,
          .faults = 100,
          .context_switches = 1000};
}

TopSample sampleOf(std::vector<ProcessReading> processes, double uptime_seconds) {
  for (ProcessReading& process : processes) process.read_at_seconds += uptime_seconds;
  return {.at = Date::fromSecondsSince1970(kNow),
          .uptime_seconds = uptime_seconds,
          .processes = std::move(processes)};
}

std::string told(const Rate& rate) {
  return rate ? std::to_string(*rate) : "none";
}

TEST(TopFiguresTest, RatesOfAProcess) {
  struct Case {
    const char* what;
    std::function<void(ProcessReading& before, ProcessReading& now)> change;
    std::string rates;  // processor, faults, switches
  };
  const Case cases[] = {
      {"at rest", [](auto&, auto&) {}, "0.000000 0.000000 0.000000"},
      {"busy for a second of two",
       [](auto&, auto& now) {
         now.processor_time = {.seconds = 2, .microseconds = 900'000};
         now.faults += 5;
         now.context_switches += 1;
       },
       "50.000000 2.500000 0.500000"},
      {"on two processors, microseconds borrowed",
       [](auto&, auto& now) { now.processor_time = {.seconds = 5, .microseconds = 500'000}; },
       "180.000000 0.000000 0.000000"},
      {"busy for a second, read half a second sooner",
       [](auto& before, auto& now) {
         before.read_at_seconds = -0.25;
         now.read_at_seconds = -0.75;
         now.processor_time.seconds += 1;
         now.faults += 3;
       },
       "66.666667 2.000000 0.000000"},
      {"counters wrap",
       [](auto& before, auto& now) {
         before.faults = 0xFFFFFFFE;
         now.faults = 2;
       },
       "0.000000 2.000000 0.000000"},
      {"a thread took its switches and a tick with it",
       [](auto&, auto& now) {
         now.processor_time = {.seconds = 1, .microseconds = 890'000};
         now.context_switches -= 1;
       },
       "0.000000 0.000000 none"},
      {"another process with the pid", [](auto&, auto& now) { now.started.microseconds += 10'000; },
       "none none none"},
      {"another pid", [](auto&, auto& now) { now.pid = 43; }, "none none none"},
  };
  for (const Case& c : cases) {
    ProcessReading before = worker(42);
    ProcessReading now = before;
    c.change(before, now);
    const TopSample first = sampleOf({worker(41), before, worker(44)}, 10);
    const TopFigures figures = figuresOf(sampleOf({now}, 12), &first);
    const ProcessFigures& process = figures.processes.at(0);
    EXPECT_EQ(told(process.cpu_percent) + " " + told(process.faults_per_second) + " " +
                  told(process.context_switches_per_second),
              c.rates)
        << c.what;
  }
}

TEST(TopFiguresTest, RatesOfTheMachine) {
  TopSample before = sampleOf({}, 10);
  before.system.cpu = {.user = 0xFFFFFFFF, .system = 10, .idle = 1000, .nice = 1};
  before.system.net_in_bytes.current = 100;
  before.system.net_out_bytes.current = 5000;
  before.system.disk_read_bytes.current = 7;
  TopSample now = before;
  now.uptime_seconds = 12;
  now.system.cpu = {.user = 19, .system = 15, .idle = 1065, .nice = 11};
  now.system.net_in_bytes.current = 1100;
  now.system.net_out_bytes.current = 4000;  // a link has gone
  now.system.disk_write_bytes.current = 1;
  const auto text = [&] {
    const TopFigures figures = figuresOf(now, &before);
    std::string shown;
    for (const Rate& rate : {figures.interval_seconds, figures.user_percent, figures.system_percent,
                             figures.idle_percent, figures.in_bytes_per_second, figures.out_bytes_per_second,
                             figures.read_bytes_per_second, figures.write_bytes_per_second}) {
      shown += told(rate) + " ";
    }
    return shown;
  };
  EXPECT_EQ(text(), "2.000000 30.000000 5.000000 65.000000 500.000000 none 0.000000 0.500000 ");
  now.system.cpu = before.system.cpu;
  now.system.cpu.system += 1;
  now.system.cpu.idle -= 3;
  now.uptime_seconds = 10;
  EXPECT_EQ(text(), "0.000000 0.000000 100.000000 0.000000 none none none none ");
  now.system.cpu = before.system.cpu;
  EXPECT_TRUE(text().starts_with("0.000000 none none none ")) << text();
}

TEST(TopFiguresTest, PrivateBytesAreThoseOfSharedLibrariesToo) {
  ProcessSample psamp = {};
  psamp.private_resident = 5;
  psamp.shlib_private = 7;
  psamp.pid = 0xFFFFFFFF;
  EXPECT_EQ(readingOf(psamp).private_bytes, 12U);
  EXPECT_EQ(readingOf(psamp).pid, -1);
}

TEST(TopFiguresTest, Orders) {
  const std::vector<ProcessFigures> processes = {
      {.pid = 1, .resident_bytes = 1, .private_bytes = 3},
      {.pid = 2, .cpu_percent = 0, .resident_bytes = 2, .private_bytes = 2, .faults_per_second = 9},
      {.pid = 3, .cpu_percent = 100, .resident_bytes = 2, .private_bytes = 1, .faults_per_second = 10},
      {.pid = 4, .cpu_percent = 0, .context_switches_per_second = 0.5},
  };
  const std::pair<TopOrder, std::string> cases[] = {
      {TopOrder::kCpu, "3241"},    {TopOrder::kPrivate, "1234"},  {TopOrder::kResident, "2314"},
      {TopOrder::kFaults, "3214"}, {TopOrder::kSwitches, "4123"},
  };
  for (const auto& [order, pids] : cases) {
    std::vector<ProcessFigures> sorted = processes;
    sortProcesses(sorted, order);
    std::string text;
    for (const ProcessFigures& process : sorted) text += std::to_string(process.pid);
    EXPECT_EQ(text, pids) << static_cast<int>(order);
  }
}

TopSample hostileSample(double uptime_seconds) {
  ProcessReading hostile = worker(42);
  hostile.command = "a\n\x1b[2J\xFF";
  hostile.processor_time.seconds += static_cast<std::int64_t>(uptime_seconds);
  TopSample sample = sampleOf({worker(7), hostile}, uptime_seconds);
  sample.system.page_size = 4096;
  sample.system.vm.wire_count = 1;
  sample.system.vm.active_count = 2;
  sample.system.vm.inactive_count = 3;
  sample.system.vm.free_count = 0x80000000;
  sample.system.loadavg = {5.09F, 0, 10};
  sample.system.threads = 6;
  sample.system.cpu.idle = static_cast<std::uint32_t>(uptime_seconds);
  return sample;
}

TEST(TopTextTest, Json) {
  const TopSample first = hostileSample(0);
  const std::string memory =
      R"("load":[5.09,0.0,10.0],"threads":6,"memory":{"wiredBytes":4096,"activeBytes":8192,)"
      R"("inactiveBytes":12288,"freeBytes":8796093022208},)";
  EXPECT_EQ(topJson(figuresOf(first, nullptr)),
            R"({"schema":1,"at":"2026-11-23T04:05:06Z","intervalSeconds":null,"cpu":{"userPercent":null,)"
            R"("systemPercent":null,"idlePercent":null},)" +
                memory +
                R"("network":{"inBytesPerSecond":null,"outBytesPerSecond":null},)"
                R"("disk":{"readBytesPerSecond":null,"writeBytesPerSecond":null},"processes":[)"
                R"({"pid":7,"command":"worker","state":"sleeping","cpuPercent":null,"threads":3,)"
                R"("residentBytes":4096,"privateBytes":2048,"virtualBytes":1048576,)"
                R"("faultsPerSecond":null,"contextSwitchesPerSecond":null},)"
                R"({"pid":42,"command":"a\n\u001b[2J\ufffd","state":"sleeping","cpuPercent":null,)"
                R"("threads":3,"residentBytes":4096,"privateBytes":2048,"virtualBytes":1048576,)"
                R"("faultsPerSecond":null,"contextSwitchesPerSecond":null}]})"
                "\n");
  TopFigures figures = figuresOf(hostileSample(1), &first);
  figures.processes.erase(figures.processes.begin());
  EXPECT_EQ(topJson(figures),
            R"({"schema":1,"at":"2026-11-23T04:05:06Z","intervalSeconds":1.0,"cpu":{"userPercent":0.0,)"
            R"("systemPercent":0.0,"idlePercent":100.0},)" +
                memory +
                R"("network":{"inBytesPerSecond":0.0,"outBytesPerSecond":0.0},)"
                R"("disk":{"readBytesPerSecond":0.0,"writeBytesPerSecond":0.0},"processes":[)"
                R"({"pid":42,"command":"a\n\u001b[2J\ufffd","state":"sleeping","cpuPercent":100.0,)"
                R"("threads":3,"residentBytes":4096,"privateBytes":2048,"virtualBytes":1048576,)"
                R"("faultsPerSecond":0.0,"contextSwitchesPerSecond":0.0}]})"
                "\n");
}

TEST(TopTextTest, LinesWithAllThereIs) {
  const TopSample first = hostileSample(0);
  const std::vector<std::string> expected = {
      "2026-11-23 04:05:06 UTC, 2 processes, over 1.0 s",
      "Load        1 min     5.09  5 min      0.00  15 min       10.00  threads        6",
      "Processors  user     0.0 %  system    0.0 %  idle       100.0 %",
      "Memory      wired  4.0 KiB  active  8.0 KiB  inactive  12.0 KiB  free     8.0 TiB",
      "Network     in       0 B/s  out       0 B/s",
      "Disk        read     0 B/s  write     0 B/s",
      "",
      "PID  CPU %  State     Threads  Resident  Private  Virtual  Faults/s  Switches/s  Command",
      "  7    0.0  sleeping        3   4.0 KiB  2.0 KiB  1.0 MiB       0.0         0.0  worker",
      " 42  100.0  sleeping        3   4.0 KiB  2.0 KiB  1.0 MiB       0.0         0.0  "
      "a\\u{a}\\u{1b}[2J\\xff",
  };
  EXPECT_EQ(topLines(figuresOf(hostileSample(1), &first), std::nullopt, false), expected);
  const std::vector<std::string> unknown = topLines(figuresOf(first, nullptr), std::nullopt, false);
  EXPECT_EQ(unknown.at(0), "2026-11-23 04:05:06 UTC, 2 processes");
  EXPECT_EQ(unknown.at(2), "Processors  user         -  system        -  idle             -");
  EXPECT_EQ(unknown.at(8),
            "  7      -  sleeping        3   4.0 KiB  2.0 KiB  1.0 MiB         -           -  worker");
}

TEST(TopTextTest, LinesFitTheScreen) {
  const TopFigures figures = figuresOf(hostileSample(0), nullptr);
  const std::vector<std::string> all = topLines(figures, std::nullopt, false);
  for (std::size_t rows = 1; rows <= all.size() + 1; ++rows) {
    EXPECT_EQ(topLines(figures, Room{rows, 200}, false).size(), std::min(rows, all.size())) << rows;
  }
  for (const std::size_t columns : {1U, 2U, 20U, 87U, 90U}) {
    const std::vector<std::string> lines = topLines(figures, Room{100, columns}, false);
    ASSERT_EQ(lines.size(), all.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_LE(lines[i].size(), columns);
      EXPECT_TRUE(all[i].starts_with(lines[i])) << lines[i];
    }
  }
}

}  // namespace
}  // namespace volorn::ctl
