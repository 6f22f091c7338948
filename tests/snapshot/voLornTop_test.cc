#include "snapshot/voLornTop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "platform/fake/fake_host.h"

namespace volorn {
namespace {

constexpr std::array kKindNames = {"i32", "u32", "i64", "u64", "f64", "text", "map"};

// "key kind value; " for each entry, in order.
std::string textOf(const ActivitySummary& summary) {
  std::string text;
  for (const auto& [key, value] : summary.entries()) {
    const auto tell = [](const auto& held) -> std::string {
      using Held = std::decay_t<decltype(held)>;
      if constexpr (std::is_same_v<Held, ActivitySummary>) return std::to_string(held.entries().size());
      if constexpr (std::is_same_v<Held, std::string>) return held;
      if constexpr (std::is_arithmetic_v<Held>) return std::to_string(held);
    };
    text += key + " " + kKindNames.at(value.index()) + " " + std::visit(tell, value) + "; ";
  }
  return text;
}

template <typename Kind>
Kind numberIn(const ActivitySummary& summary, std::string_view key) {
  return std::get<Kind>(*summary.find(key));
}

TEST(ActivitySummaryTest, ALaterValueReplacesAnEarlierInItsPlace) {
  ActivitySummary summary(1);
  for (const char* key : {"m", "b", "z", "a", "b"}) {
    summary.insert(key, static_cast<std::int32_t>(summary.entries().size()));
  }
  EXPECT_EQ(textOf(summary), "m i32 0; b i32 4; z i32 2; a i32 3; ");
  EXPECT_EQ(numberIn<std::int32_t>(summary, "b"), 4);
  EXPECT_EQ(summary.find("c"), nullptr);
  EXPECT_EQ(summary.find("zz"), nullptr);
}

// The second of two samples, each source with a value of its own.
SystemSample secondSample() {
  SystemSample sample = {};
  sample.state_counts = {1, 2, 4, 8, 16, 32, 64, 128};
  sample.threads = 301;
  sample.loadavg = {0.5F, 1.25F, 2.75F};
  sample.cpu_prev = {.user = 100, .system = 200, .idle = 300, .nice = 400};
  sample.cpu = {.user = 110, .system = 215, .idle = 370, .nice = 405};
  sample.shlib_code_regions = 302;
  sample.shlib_code = 303;
  sample.shlib_data = 304;
  sample.shlib_readonly = 305;
  sample.shlib_private_total = 306;
  sample.region_count_total = 307;
  sample.private_resident_total = 1000;
  sample.shared_resident_total = 308;
  sample.page_size = 1000;
  sample.vm_prev = {0, 0, 0, 0, 5, 6, 1, 2, 3, 4, 0, 0};
  sample.vm = {14, 12, 13, 11, 505, 606, 101, 202, 303, 404, 0, 0};
  std::uint64_t rise = 210;
  for (const auto total :
       {&SystemSample::net_in_packets, &SystemSample::net_in_bytes, &SystemSample::net_out_packets,
        &SystemSample::net_out_bytes, &SystemSample::disk_read_ops, &SystemSample::disk_read_bytes,
        &SystemSample::disk_write_ops, &SystemSample::disk_write_bytes}) {
    sample.*total = {.current = 100 + (rise += 10), .begin = 9, .previous = 100};
  }
  sample.swap.available_bytes = 401;
  sample.swap.used_bytes = 402;
  sample.swap_valid = 1;
  sample.time_prev = {.seconds = 9, .microseconds = 900'000};
  sample.time = {.seconds = 12, .microseconds = 400'000};
  return sample;
}

ProcessSample secondProcessSample() {
  ProcessSample psamp = {};
  psamp.command = "worker";
  psamp.pid = 42;
  psamp.seq_prev = 1;
  psamp.total_time_prev = {.seconds = 1, .microseconds = 500'000};
  psamp.total_time = {.seconds = 2, .microseconds = 125'000};
  psamp.events_prev = {1, 2, 3, 4, 5, 6, 7, 8};
  psamp.events = {101, 202, 303, 404, 505, 606, 707, 808};
  psamp.threads = 21;
  psamp.ports = 22;
  psamp.region_count = 0xFFFFFFFF;
  psamp.private_resident = 24;
  psamp.shared_resident = 25;
  psamp.resident = 26;
  psamp.virtual_size = 27;
  return psamp;
}

TEST(SystemSummaryTest, EachFigureHasItsKeyAndKindInOrder) {
  EXPECT_EQ(textOf(systemSummary(secondSample(), 10.0)),
            "Processes/Total i32 255; Processes/Running i32 2; Processes/Sleeping i32 8; "
            "Kernel Resources/Threads i32 301; "
            "Load/1-Minute f64 0.500000; Load/5-Minute f64 1.250000; Load/15-Minute f64 2.750000; "
            "CPU/%User f64 15.000000; CPU/%System f64 15.000000; CPU/%Idle f64 70.000000; "
            "Shared Libraries/Count i32 302; Shared Libraries/Resident Code Size u64 303; "
            "Shared Libraries/Resident Data Size u64 304; Shared Libraries/LinkEdit Size u64 305; "
            "Memory Regions/Count i32 307; Memory Regions/Resident Size i64 694; "
            "Memory Regions/Resident Size (Private) i64 1000; "
            "Memory Regions/Resident Size (Shared) i64 308; "
            "Physical Memory/Wired i64 11000; Physical Memory/Active i64 12000; "
            "Physical Memory/Inactive i64 13000; Physical Memory/Used i64 36000; "
            "Physical Memory/Free i64 14000; "
            "Network/Input Packet Count i64 22; Network/Input i64 23; "
            "Network/Output Packet Count i64 24; Network/Output i64 25; "
            "Disk/Read Count i64 26; Disk/Read i64 27; Disk/Write Count i64 28; Disk/Write i64 29; "
            "VM Faults/Pageins u32 10; VM Faults/Pageouts u32 20; VM Faults/Total Faults u32 30; "
            "VM Faults/COW Faults u32 40; VM Faults/Zero Fill Faults u32 50; "
            "VM Faults/Reactivations u32 60; "
            "Swap/Available u64 401; Swap/Used u64 402; ");
}

struct SystemExtreme {
  const char* what;
  std::function<void(SystemSample&)> change;
  std::string figures;  // as textOf has them
};

const SystemExtreme kSystemExtremes[] = {
    {"no tick passed", [](auto& sample) { sample.cpu = sample.cpu_prev; },
     "CPU/%User f64 0.000000; CPU/%System f64 0.000000; CPU/%Idle f64 0.000000; "},
    {"ticks wrap, and their sum does not",
     [](auto& sample) {
       sample.cpu_prev = {.user = 0xFFFFFFFF, .system = 0xFFFFFFFF, .idle = 0, .nice = 0};
       sample.cpu = {.user = 0xFFFFFFFF, .system = 0xBFFFFFFF, .idle = 0xC0000000, .nice = 0};
     },
     "CPU/%User f64 0.000000; CPU/%System f64 50.000000; CPU/%Idle f64 50.000000; "},
    {"shares are formed in single precision",
     [](auto& sample) {
       sample.cpu_prev = {};
       sample.cpu = {.user = 1, .system = 2, .idle = 0, .nice = 0};
     },
     "CPU/%User f64 33.333332; CPU/%System f64 66.666664; "},
    {"the sum of processes wraps",
     [](auto& sample) { sample.state_counts = {0, 0x80000000, 0, 0x80000001, 0, 0, 0, 0}; },
     "Processes/Total i32 1; Processes/Running i32 -2147483648; "},
    {"the sum of used pages wraps, a product does not",
     [](auto& sample) {
       sample.vm.wire_count = 0x80000000;
       sample.vm.active_count = 0x7FFFFFF4;
     },
     "Physical Memory/Active i64 2147483636000; Physical Memory/Inactive i64 13000; "
     "Physical Memory/Used i64 1000; "},
    {"more private bytes in shared libraries than at all",
     [](auto& sample) { sample.private_resident_total = 0; }, "Memory Regions/Resident Size i64 -306; "},
    {"a counter falls", [](auto& sample) { sample.disk_read_bytes.current = 99; },
     "Disk/Read i64 9223372036854775807; "},
    {"faults beyond 32 bits",
     [](auto& sample) {
       sample.vm.pageins = sample.vm_prev.pageins + 0xFFFFFFFF;
       sample.vm.pageouts = sample.vm_prev.pageouts + 0x1'0000'0000;
     },
     "VM Faults/Pageins u32 4294967295; VM Faults/Pageouts u32 4294967295; "},
};

TEST(SystemSummaryTest, Extremes) {
  for (const auto& [what, change, figures] : kSystemExtremes) {
    SystemSample sample = secondSample();
    change(sample);
    const std::string text = textOf(systemSummary(sample, 1.0));
    EXPECT_NE(text.find(figures), std::string::npos) << what << ": " << text;
  }
}

TEST(ProcessSummaryTest, EachFigureHasItsKeyAndKindInOrder) {
  EXPECT_EQ(textOf(processSummary(secondSample(), secondProcessSample(), 10.0)),
            "Command text worker; "
            "pid u32 42; "
            "CPU/%CPU f64 25.000000; "
            "Virtual Memory/Total Faults i32 10; Virtual Memory/Pageins i32 20; "
            "Virtual Memory/COW Faults i32 30; "
            "Mach Messages/Sent i32 40; Mach Messages/Received i32 50; "
            "System Calls/BSD i32 70; System Calls/Mach i32 60; "
            "Context Switches i32 80; "
            "Kernel Resources/Threads i32 21; Kernel Resources/Mach Ports i32 22; "
            "Memory Regions/Count i64 4294967295; Memory Regions/Resident Size (Private) i64 24; "
            "Memory Regions/Resident Size (Shared) i64 25; Memory Regions/Resident Size i64 26; "
            "Memory Regions/Virtual Size i64 27; ");
}

TEST(ProcessSummaryTest, Extremes) {
  SystemSample sample = secondSample();
  ProcessSample psamp = secondProcessSample();
  psamp.events_prev[kTaskEventFaults] = INT32_MAX;
  psamp.events[kTaskEventFaults] = INT32_MIN + 29;  // 30 later
  psamp.events[kTaskEventPageins] = -27;            // 29 earlier
  const auto expect = [&](const std::string& figures, double divisor_seconds) {
    const std::string text = textOf(processSummary(sample, psamp, divisor_seconds));
    EXPECT_NE(text.find(figures), text.npos) << figures << " in " << text;
  };
  expect("Virtual Memory/Total Faults i32 3; Virtual Memory/Pageins i32 -2; ", 10.0);
  expect("Virtual Memory/Total Faults i32 2147483647; Virtual Memory/Pageins i32 -2147483648; ", 0.0);
  psamp.seq_prev = 0;
  expect("CPU/%CPU f64 0.000000; ", 1.0);
  psamp.seq_prev = 1;
  sample.time = sample.time_prev;
  expect("CPU/%CPU f64 inf; ", 1.0);
  psamp.total_time = psamp.total_time_prev;
  expect("nan; ", 1.0);
  sample.time = {.seconds = 10, .microseconds = 900'000};
  psamp.total_time.microseconds -= 1;  // backwards: unsigned, it is nearly 2^64
  expect("CPU/%CPU f64 " + std::to_string(18446744073709551616.0 * 100.0 / 1'000'000.0) + "; ", 1.0);
}

class VoLornTopTest : public testing::Test {
 protected:
  // Of the summary's last entry.
  static const ActivitySummary& processesOf(const ActivitySummary& summary) {
    EXPECT_EQ(summary.entries().back().key, "Process Stats");
    return std::get<ActivitySummary>(summary.entries().back().value);
  }

  fake::FakeHost host;
  const Services services = host.services();
  const ScopedServices scoped{services};
};

TEST_F(VoLornTopTest, EachProcessStandsUnderItsCommandAndPid) {
  for (const std::int32_t pid : {42, 7, -3}) host.kernel.addTask(pid, "worker");
  host.kernel.addTask(9, "a_b\xFF");
  host.kernel.own_regions = {
      {.address = 0x90000000, .size = 4096, .submap = {kProtectionExecute, 1, ShareMode::shared}}};
  const std::optional<ActivitySummary> summary = voLornTop::_getTopData();
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->entries().size(), 40U);
  EXPECT_EQ(numberIn<std::uint64_t>(*summary, "Shared Libraries/Resident Code Size"), 4096U);
  EXPECT_EQ(textOf(processesOf(*summary)),
            "worker_-3 map 18; worker_7 map 18; a_b\xFF_9 map 18; worker_42 map 18; ");
  EXPECT_EQ(libtop_piterate(), nullptr);  // the sampler has ended
}

// An interface list that cannot be had after one that could leaves a difference to the sample before, the one
// way in which a single sample has a rate that is not 0. It is divided by whole seconds since 1970.
TEST_F(VoLornTopTest, WithoutSwapAndProcessesThereAre38Keys) {
  host.kernel.interface_list = fake::FakeKernel::interfaceMessage({0, 0, 4096, 0});
  ASSERT_TRUE(voLornTop::_getTopData());
  host.kernel.failures = {{.call = "sysctl 4.17 size", .code = 1}, {.call = "sysctl 2.5", .code = 1}};
  host.kernel.time = {.seconds = (std::int64_t{1} << 32) - 1, .microseconds = 1'999'999};
  host.calls.clear();
  const std::optional<ActivitySummary> summary = voLornTop::_getTopData();
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->entries().size(), 38U);
  EXPECT_TRUE(processesOf(*summary).entries().empty());
  EXPECT_EQ(numberIn<std::int64_t>(*summary, "Network/Input"), 0xFFFFFFFF);
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "gettimeofday"), 2);
}

TEST_F(VoLornTopTest, ASamplerThatFailsGivesNothing) {
  host.kernel.addTask(1, "gone later");
  for (const auto& [call, asked] :
       {std::pair("sysctl 6.24", "sysctl 6.24"), {"getloadavg", "getloadavg 24"}}) {
    host.kernel.failures = {{.call = call, .code = 1}};
    EXPECT_FALSE(voLornTop::_getTopData());
    EXPECT_EQ(host.calls.back(), asked);
  }
  EXPECT_NE(libtop_piterate(), nullptr);  // it stays started
  host.kernel.failures.clear();
  host.kernel.tasks.clear();
  const std::optional<ActivitySummary> summary = voLornTop::_getTopData();
  ASSERT_TRUE(summary);
  EXPECT_TRUE(processesOf(*summary).entries().empty());
}

}  // namespace
}  // namespace volorn
