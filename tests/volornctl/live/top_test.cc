#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "volornctl/live/process_list.h"
#include "volornctl/live/readings.h"
#include "volornctl/live/top_blocks.h"
#include "volornctl/live/top_json.h"

namespace volorn::ctl {
namespace {

constexpr double kNow = 1795406706.0;  // 2026-11-23 04:05:06 UTC

ProcessReading worker(std::int32_t pid) {
  return {.figures = {.pid = pid,
                      .ppid = 1,
                      .uid = 1000,
                      .command = "worker",
                      .started_at = Date::fromSecondsSince1970(kNow - 3725.5),
                      .start = 5'010'000,
                      .state = kProcessSleeping,
                      .cpu_seconds = 1.9,
                      .threads = 3,
                      .descriptors = 4,
                      .resident_bytes = 4096,
                      .private_bytes = 2048,
                      .virtual_bytes = 1 << 20,
                      .footprint_bytes = 1024},
          .processor_time = {.seconds = 1, .microseconds = 900'000},
          .faults = 100,
          .major_faults = 5,
          .context_switches = 1000};
}

MachineReading readingOf(std::vector<ProcessReading> processes, double uptime_seconds) {
  for (ProcessReading& process : processes) process.read_at_seconds += uptime_seconds;
  return {.at = Date::fromSecondsSince1970(kNow + 0.1234),
          .uptime_seconds = uptime_seconds,
          .processes = std::move(processes)};
}

std::string told(const std::vector<Rate>& rates) {
  std::string text;
  for (const Rate& rate : rates) text += (rate ? std::to_string(*rate) : "none") + " ";
  return text;
}

TEST(ReadingsTest, RatesOfAProcess) {
  struct Case {
    const char* what;
    std::function<void(ProcessReading& before, ProcessReading& now)> change;
    std::string rates;  // processor, faults, major faults, switches
  };
  const Case cases[] = {
      {"busy for a second of two",
       [](auto&, auto& now) {
         now.processor_time = {.seconds = 2, .microseconds = 900'000};
         now.faults += 5;
         now.major_faults += 2;
         now.context_switches += 1;
       },
       "50.000000 2.500000 1.000000 0.500000 "},
      {"on two processors, microseconds borrowed",
       [](auto&, auto& now) { now.processor_time = {.seconds = 5, .microseconds = 500'000}; },
       "180.000000 0.000000 0.000000 0.000000 "},
      {"busy for a second, read half a second sooner",
       [](auto& before, auto& now) {
         before.read_at_seconds = -0.25;
         now.read_at_seconds = -0.75;
         now.processor_time.seconds += 1;
         now.faults += 3;
       },
       "66.666667 2.000000 0.000000 0.000000 "},
      {"counters wrap", [](auto& before, auto& now) { before.faults = 0xFFFFFFFE, now.faults = 2; },
       "0.000000 2.000000 0.000000 0.000000 "},
      {"a thread took its switches and a tick with it",
       [](auto&, auto& now) {
         now.processor_time = {.seconds = 1, .microseconds = 890'000};
         now.context_switches -= 1;
       },
       "0.000000 0.000000 0.000000 none "},
      {"another process with the pid", [](auto&, auto& now) { now.figures.start += 10'000; },
       "none none none none "},
      {"another pid", [](auto&, auto& now) { now.figures.pid = 43; }, "none none none none "},
  };
  for (const Case& c : cases) {
    ProcessReading before = worker(42);
    ProcessReading now = before;
    c.change(before, now);
    const MachineReading first = readingOf({worker(41), before, worker(44)}, 10);
    const Sample sample = sampleOf(readingOf({now}, 12), &first);
    const ProcessFigures& process = sample.processes.at(0);
    EXPECT_EQ(told({process.cpu_percent, process.faults_per_second, process.major_faults_per_second,
                    process.context_switches_per_second}),
              c.rates)
        << c.what;
  }
}

TEST(ReadingsTest, RatesOfTheMachine) {
  MachineReading before = readingOf({}, 10);
  before.system.cpu = {.user = 0xFFFFFFFF, .system = 10, .idle = 1000, .nice = 1};
  before.system.net_in_bytes.current = 100;
  before.system.net_out_bytes.current = 5000;
  before.system.disk_read_bytes.current = 7;
  MachineReading now = before;
  now.uptime_seconds = 12;
  now.system.cpu = {.user = 19, .system = 15, .idle = 1065, .nice = 11};
  now.system.net_in_bytes.current = 1100;
  now.system.net_out_bytes.current = 4000;  // a link has gone
  now.system.disk_write_bytes.current = 1;
  const auto text = [&] {
    const Sample sample = sampleOf(now, &before);
    return told({sample.interval_seconds, sample.user_percent, sample.system_percent, sample.idle_percent,
                 sample.in_bytes_per_second, sample.out_bytes_per_second, sample.read_bytes_per_second,
                 sample.write_bytes_per_second});
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

TEST(ProcessListTest, OrdersFiltersAndTrees) {
  const Sample sample = {
      .processes = {{.pid = 1, .command = "Init", .threads = 1, .resident_bytes = 1, .private_bytes = 3},
                    {.pid = 2, .command = "kthreadd", .cpu_percent = 0, .threads = 1},
                    {.pid = 3, .ppid = 2, .command = "kworker", .cpu_percent = 0, .threads = 1},
                    {.pid = 4,
                     .ppid = 1,
                     .uid = 7,
                     .command = "b",
                     .cpu_percent = 1,
                     .resident_bytes = 9,
                     .virtual_bytes = 1},
                    {.pid = 5,
                     .ppid = 4,
                     .uid = 7,
                     .command = "a init",
                     .cpu_percent = 100,
                     .threads = 2,
                     .virtual_bytes = 1},
                    {.pid = 6, .ppid = 7, .uid = 8, .command = "c", .virtual_bytes = 1},
                    {.pid = 7, .ppid = 6, .uid = 8, .command = "d", .private_bytes = 1, .virtual_bytes = 1},
                    {.pid = 8, .ppid = 2, .uid = 9, .command = "z", .state = kProcessHalted}}};
  const std::pair<ProcessChoice, std::string> cases[] = {
      {{}, "54231678"},
      {{.is_reversed = true}, "23451678"},  // what is not known stays last
      {{.order = Column::kPrivate}, "17234568"},
      {{.order = Column::kPid, .is_reversed = true}, "87654321"},
      {{.order = Column::kCommand}, "15467238"},
      {{.order = Column::kUser}, "12384567"},  // "0", "9", which has no name, "ann", "root"
      {{.name = "INI"}, "51"},
      {{.pids = {3, 99}}, "3"},
      {{.uid = 7}, "54"},
      {{.user = "ann"}, "54"},
      {{.user = "8"}, "67"},
      {{.hides_kernel_threads = true}, "541678"},  // a zombie is none
      {{.limit = 2}, "54"},
      {{.is_tree = true, .order = Column::kPid}, "1 4.5..2 3.8.6 7."},
  };
  const UserNames names = {{0, "0"}, {7, "ann"}, {8, "root"}};
  for (const auto& [choice, expected] : cases) {
    std::string text;
    for (const ProcessRow& row : listProcesses(sample, choice, names)) {
      text += std::to_string(row.process->pid);
      if (choice.is_tree) text += row.depth > 0 ? std::string(row.depth, '.') : " ";
    }
    EXPECT_EQ(text, expected) << traitsOf(choice.order).name << choice.name << choice.user;
  }
}

TEST(ProcessColumnsTest, NoNumberIsCutAndTheLeastImportantIsLeftOut) {
  std::array<std::size_t, kColumns.size()> widths = {};
  for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = kColumns[i].width;
  const std::pair<std::size_t, Column> last_but_command[] = {
      {10, Column::kPid},      {40, Column::kCpu},        {80, Column::kThreads},
      {120, Column::kVirtual}, {200, Column::kFootprint},
  };
  for (const auto& [columns, last] : last_but_command) {
    const std::vector<Column> fitting = fittingColumns(widths, columns);
    EXPECT_EQ(fitting.back(), Column::kCommand);
    EXPECT_EQ(*(fitting.end() - 2), last) << columns;
  }
}

MachineReading hostileReading(double uptime_seconds) {
  ProcessReading hostile = worker(42);
  hostile.figures.command = "a\n\x1b[2J\xFF";
  hostile.figures.private_bytes.reset();
  hostile.figures.descriptors.reset();
  hostile.processor_time.seconds += static_cast<std::int64_t>(uptime_seconds);
  MachineReading reading = readingOf({worker(7), hostile}, uptime_seconds);
  SystemSample& system = reading.system;
  system.page_size = 4096;
  system.mem_size = 1 << 20;
  system.vm.wire_count = 1;
  system.vm.active_count = 2;
  system.vm.inactive_count = 3;
  system.vm.free_count = 0x80000000;
  system.swap = {
      .total_bytes = 9, .available_bytes = 4, .used_bytes = 5, .page_size_bytes = 0, .encrypted = 0};
  system.swap_valid = uptime_seconds > 0;
  system.loadavg = {5.09F, 0, 10};
  system.threads = 6;
  system.state_counts = {0, 0, 0, 2};
  system.cpu.idle = static_cast<std::uint32_t>(uptime_seconds);
  reading.available_bytes = 104857;
  return reading;
}

TEST(TopTextTest, Json) {
  const MachineReading first = hostileReading(0);
  const std::string of_both =
      R"("load":[5.09,0.0,10.0],"threads":6,"states":{"running":0,"uninterruptible":0,"sleeping":2,)"
      R"("idle":0,"stopped":0,"halted":0,"unknown":0},"memory":{"totalBytes":1048576,)"
      R"("availableBytes":104857,"wiredBytes":4096,"activeBytes":8192,"inactiveBytes":12288,)"
      R"("freeBytes":8796093022208},"swap":{)";
  const std::string process =
      R"(","startedAt":"2026-11-23T03:03:00.500Z","state":"sleeping","cpuPercent":null,"cpuSeconds":1.9,)"
      R"("threads":3,"descriptors":4,"residentBytes":4096,"privateBytes":2048,"virtualBytes":1048576,)"
      R"("footprintBytes":1024,"faultsPerSecond":null,"majorFaultsPerSecond":null,)"
      R"("contextSwitchesPerSecond":null})";
  const Sample unknown = sampleOf(first, nullptr);
  EXPECT_EQ(topJson(unknown, {{.process = &unknown.processes[0]}}),
            R"({"schema":1,"at":"2026-11-23T04:05:06.123Z","intervalSeconds":null,"cpu":{"userPercent":null,)"
            R"("systemPercent":null,"idlePercent":null},)" +
                of_both +
                R"("totalBytes":null,"usedBytes":null},"network":{"inBytesPerSecond":null,)"
                R"("outBytesPerSecond":null},"disk":{"readBytesPerSecond":null,"writeBytesPerSecond":null},)"
                R"("processes":[{"pid":7,"ppid":1,"uid":1000,"command":"worker)" +
                process + "]}\n");
  const Sample known = sampleOf(hostileReading(1), &first);
  EXPECT_EQ(
      topJson(known, listProcesses(known, {.limit = 1}, {})),
      R"({"schema":1,"at":"2026-11-23T04:05:06.123Z","intervalSeconds":1.0,"cpu":{"userPercent":0.0,)"
      R"("systemPercent":0.0,"idlePercent":100.0},)" +
          of_both +
          R"("totalBytes":9,"usedBytes":5},"network":{"inBytesPerSecond":0.0,"outBytesPerSecond":0.0},)"
          R"("disk":{"readBytesPerSecond":0.0,"writeBytesPerSecond":0.0},"processes":[{"pid":42,)"
          R"("ppid":1,"uid":1000,"command":"a\n\u001b[2J\ufffd","startedAt":"2026-11-23T03:03:00.500Z",)"
          R"("state":"sleeping","cpuPercent":100.0,"cpuSeconds":1.9,"threads":3,"descriptors":null,)"
          R"("residentBytes":4096,"privateBytes":null,"virtualBytes":1048576,"footprintBytes":1024,)"
          R"("faultsPerSecond":0.0,"majorFaultsPerSecond":0.0,"contextSwitchesPerSecond":0.0}]})"
          "\n");
}

TEST(TopTextTest, Blocks) {
  const MachineReading first = hostileReading(0);
  const Sample sample = sampleOf(hostileReading(1), &first);
  const ProcessList processes = listProcesses(sample, {}, {});
  const std::string text = topBlock(sample, processes, {{1000, "x\n"}}, std::nullopt, false);
  EXPECT_EQ(
      text,
      "2026-11-23 04:05:06 UTC, over 1.0 s\n"
      "Processors  user 0.0 %      system 0.0 %  idle 100.0 %\n"
      "Memory!     available 102K  total 1.0M    wired 4.0K    free 8.0T  active 8.0K  inactive 12.0K\n"
      "Load        5.09            0.00          10.00\n"
      "Tasks       2               0 running     2 sleeping    6 threads\n"
      "Network     in 0/s          out 0/s\n"
      "Disk        read 0/s        write 0/s\n"
      "Swap        total 9         used 5\n"
      "\n"
      "PID  User    CPU %  Private  Resident  State     Threads  Parent    Age  CPU time  Virtual  Files  "
      "Faults/s  Major/s  Switches/s  Footprint  Command\n"
      " 42  x\\u{a}  100.0        -      4.0K  sleeping        3       1  1h02m   0:01.90     1.0M      -  "
      "     0.0      0.0         0.0       1.0K  a\\u{a}\\u{1b}[2J\\xff\n"
      "  7  x\\u{a}    0.0     2.0K      4.0K  sleeping        3       1  1h02m   0:01.90     1.0M      4  "
      "     0.0      0.0         0.0       1.0K  worker\n");
  EXPECT_EQ(topBlock(sample, processes, {}, Room{2, 12}, false), "2026-11-23 0\nProcessors\n");
}

}  // namespace
}  // namespace volorn::ctl
