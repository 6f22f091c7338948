#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "tests/failing_allocation.h"
#include "tests/libtop/sampler_fixture.h"

namespace volorn {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

TimeStamp at(std::int64_t seconds, std::int32_t microseconds = 0) {
  return {.seconds = seconds, .microseconds = microseconds};
}

PropertyTable statistics(std::int64_t reads, std::int64_t read_bytes, std::int64_t writes,
                         std::int64_t written_bytes) {
  const auto number = [](std::int64_t value) { return PropertyValue{value}; };
  return {{"Operations (Read)", number(reads)},
          {"Bytes (Read)", number(read_bytes)},
          {"Operations (Write)", number(writes)},
          {"Bytes (Write)", number(written_bytes)}};
}

class SystemSampleTest : public SamplerTest {
 protected:
  // Of the eight totals, in the order of their fields.
  static std::vector<std::uint64_t> totals(std::uint64_t Total64::*part) {
    const SystemSample& s = *libtop_tsamp();
    std::vector<std::uint64_t> values;
    for (const Total64& total : {s.net_in_packets, s.net_out_packets, s.net_in_bytes, s.net_out_bytes,
                                 s.disk_read_ops, s.disk_write_ops, s.disk_read_bytes, s.disk_write_bytes}) {
      values.push_back(total.*part);
    }
    return values;
  }
};

using Values = std::vector<std::uint64_t>;

TEST_F(SystemSampleTest, CurrentBeginAndPreviousValuesOverThreeSamples) {
  kernel.memory_bytes = 8ULL << 30;
  kernel.time = at(100, 5);
  kernel.ticks = {.user = 1, .system = 2, .idle = 3, .nice = 4};
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(libtop_tsamp()->page_size, kPage);
  EXPECT_EQ(libtop_tsamp()->mem_size, 8ULL << 30);

  kernel.time = at(200);
  kernel.ticks.user = 11;
  kernel.vm.faults = 1000;
  kernel.load_averages = {0.1, 2.5, 1e10};
  kernel.swap = {
      .total_bytes = 9, .available_bytes = 5, .used_bytes = 4, .page_size_bytes = 1, .encrypted = 0};
  kernel.interface_list = fake::FakeKernel::interfaceMessage({1, 2, 3, 4}) +
                          fake::FakeKernel::interfaceMessage({500, 500, 500, 500}, 14) +
                          fake::FakeKernel::interfaceMessage({10, 20, 30, 40});
  host.device_registry.disks = {fake::FakeDeviceRegistry::diskWith(statistics(1, 2, 3, 4)),
                                {},
                                fake::FakeDeviceRegistry::diskWith({}),
                                {.properties = PropertyTable{}},
                                fake::FakeDeviceRegistry::diskWith(statistics(10, 20, 30, 40))};
  const SystemSample first = sample();
  // The first sample does not read the clock, and its totals are where everything begins.
  for (const TimeStamp& time : {first.time, first.time_begin, first.time_prev}) EXPECT_EQ(time, at(100, 5));
  EXPECT_EQ(first.cpu.user, 11U);
  EXPECT_EQ(first.cpu_prev.user, 1U);
  EXPECT_EQ(first.loadavg, (std::array<float, 3>{0.1F, 2.5F, 1e10F}));
  EXPECT_EQ(first.vm, kernel.vm);
  EXPECT_EQ(first.vm_begin, kernel.vm);
  EXPECT_EQ(first.vm_prev, kernel.vm);
  EXPECT_EQ(first.swap, kernel.swap);
  EXPECT_EQ(first.swap_valid, 1U);
  EXPECT_EQ(first.purgeable_valid, 1U);
  const Values beginning = {11, 22, 33, 44, 11, 33, 22, 44};
  for (const auto part : {&Total64::current, &Total64::begin, &Total64::previous}) {
    EXPECT_EQ(totals(part), beginning);
  }
  EXPECT_EQ(host.device_registry.held_services, 0);
  EXPECT_EQ(host.device_registry.held_iterators, 0);

  kernel.ticks.user = 12;
  kernel.vm.faults = 2000;
  kernel.interface_list = fake::FakeKernel::interfaceMessage({100, 200, 300, 400});
  host.device_registry.disks.pop_back();
  const SystemSample second = sample();
  EXPECT_EQ(second.time, at(200));
  EXPECT_EQ(second.time_prev, at(100, 5));
  EXPECT_EQ(second.cpu.user, 12U);
  EXPECT_EQ(second.cpu_prev.user, 11U);
  EXPECT_EQ(second.cpu_begin.user, 1U);
  EXPECT_EQ(second.vm.faults, 2000U);
  EXPECT_EQ(second.vm_prev.faults, 1000U);
  EXPECT_EQ(second.vm_begin.faults, 1000U);
  EXPECT_EQ(totals(&Total64::current), (Values{100, 200, 300, 400, 1, 3, 2, 4}));
  EXPECT_EQ(totals(&Total64::previous), beginning);
  EXPECT_EQ(totals(&Total64::begin), beginning);

  // What fails quietly in the third sample.
  fail("host_statistics64");
  fail("host_statistics");
  fail("sysctl 2.5");
  fail("sysctl 4.17 size");
  host.device_registry.search_fails = true;
  const SystemSample third = sample();
  EXPECT_EQ(third.vm.faults, 2000U);
  EXPECT_EQ(third.vm_prev.faults, 2000U);
  EXPECT_EQ(third.cpu, third.cpu_prev);
  EXPECT_EQ(third.swap_valid, 0U);
  EXPECT_EQ(third.swap, kernel.swap);
  EXPECT_EQ(totals(&Total64::current), (Values{0, 0, 0, 0, 1, 3, 2, 4}));
  EXPECT_EQ(totals(&Total64::previous), (Values{100, 200, 300, 400, 11, 33, 22, 44}));
  EXPECT_EQ(messages, (std::vector<std::string>{"Error in host_statistics(): failure",
                                                "Error in DeviceRegistryFindServices()"}));
}

TEST_F(SystemSampleTest, CallsInOrder) {
  const auto asked = [this] {
    std::string text;
    for (const std::string& call : std::exchange(host.calls, {})) text += call + "; ";
    return text;
  };
  kernel.addTask(42, "").arguments = std::string("tool\0tool\0", 10);
  kernel.reserved_bytes = {{"Reserved", 0}, {"Unusable", 0}, {"Other", 0}};
  host.device_registry.disks = {fake::FakeDeviceRegistry::diskWith({})};
  kernel.journals_task_calls = true;
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(asked(),
            "host_page_size; sysctl 6.24; sysctlnametomib machdep.memmap.Reserved; "
            "sysctlnametomib machdep.memmap.Unusable; sysctlnametomib machdep.memmap.Other; "
            "sysctl machdep.memmap.Reserved; sysctl machdep.memmap.Unusable; sysctl machdep.memmap.Other; "
            "sysctl 1.8; openDeviceRegistry; host_statistics; gettimeofday; ");
  sample();
  asked();
  sample(true, true);
  EXPECT_EQ(asked(),
            "gettimeofday; host_processor_sets; host_processor_set_priv; processor_set_tasks; "
            "pid_for_task 42; sysctl 1.14.1 42; sysctl 1.49 42; sysctl sysctl.proc_cputype 42; "
            "task_info 18 42; mach_vm_region 12 42; task_threads 42; thread_info 42; "
            "mach_port_deallocate thread; mach_vm_deallocate threads; mach_port_names 42; "
            "mach_vm_deallocate port names; mach_vm_deallocate port types; task_info 2 42; task_info 7 42; "
            "task_info 21 42; task_info 23 42; proc_pidinfo 12 42; mach_port_deallocate task; "
            "mach_vm_deallocate tasks; mach_port_deallocate set; mach_port_deallocate set name; "
            "mach_vm_deallocate set names; getloadavg 24; host_statistics; mach_vm_region_recurse 1; "
            "mach_vm_region_recurse 1; host_statistics64; sysctl 2.5; sysctl 4.17 size; sysctl 4.17; "
            "findServices BlockStorageDriver; copyProperties; releaseService; resetServices; ");
}

TEST_F(SystemSampleTest, FailedPropertyCopyLeavesPartialSums) {
  host.device_registry.disks = {fake::FakeDeviceRegistry::diskWith(statistics(1, 2, 3, 4)),
                                {.properties = {}, .copy_fails = true},
                                fake::FakeDeviceRegistry::diskWith(statistics(10, 20, 30, 40))};
  sample();
  EXPECT_EQ(totals(&Total64::current), (Values{0, 0, 0, 0, 1, 3, 2, 4}));
  EXPECT_EQ(totals(&Total64::begin), Values(8));
  EXPECT_EQ(host.device_registry.held_services, 1);
  EXPECT_EQ(host.device_registry.held_iterators, 0);
  EXPECT_EQ(messages, std::vector<std::string>{"Error in DeviceRegistryCopyProperties()"});
}

TEST_F(SystemSampleTest, BrokenInterfaceListsCountWhatIsWhole) {
  const std::string whole = fake::FakeKernel::interfaceMessage({1, 2, 3, 4});
  std::string too_long = whole;
  too_long[0] = static_cast<char>(0xFF);
  std::string short_information = whole.substr(0, 100);
  short_information[0] = 100;
  const std::string no_length(8, '\0');
  const std::string kLists[] = {whole + "\x01", whole + too_long, short_information + whole,
                                whole + no_length};
  for (const std::string& list : kLists) {
    kernel.interface_list = list;
    sample();
    EXPECT_EQ(libtop_tsamp()->net_out_bytes.current, 4U);
  }
  fail("sysctl 4.17");
  sample();
  EXPECT_EQ(libtop_tsamp()->net_out_bytes.current, 0U);
  EXPECT_EQ(libtop_tsamp()->net_out_bytes.previous, 4U);
}

TEST_F(SystemSampleTest, KernelWithoutPurgeCounters) {
  kernel.vm.purges = 7;
  kernel.vm.purgeable_count = 8;
  kernel.vm_count = 36;
  EXPECT_EQ(sample().purgeable_valid, 0U);
  EXPECT_EQ(libtop_tsamp()->vm.purges, 0U);
  EXPECT_EQ(libtop_tsamp()->vm.purgeable_count, 0U);
}

TEST_F(SystemSampleTest, ReservedMemoryIsWiredInStepsOf128MiB) {
  using Reserved = std::map<std::string, std::uint64_t, std::less<>>;
  struct Case {
    Reserved bytes;
    std::uint64_t counted_bytes;
  };
  const Case kCases[] = {
      {{{"Reserved", 100 * kMiB}, {"Unusable", 27 * kMiB}, {"Other", kMiB - 1}}, 0},
      {{{"Reserved", 100 * kMiB}, {"Unusable", 27 * kMiB}, {"Other", kMiB}}, 128 * kMiB},
      {{{"Reserved", 100 * kMiB}, {"Unusable", 100 * kMiB}, {"Other", 100 * kMiB}}, 256 * kMiB},
      {{{"Reserved", 300 * kMiB}, {"Unusable", 0}}, 0},  // the third cannot be read
  };
  // A name that cannot be resolved is tried again at the next start, and none behind it before.
  kernel.reserved_bytes = kCases[2].bytes;
  fail("sysctlnametomib machdep.memmap.Unusable");
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(sampler.reserved_pages, 0U);
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "sysctlnametomib machdep.memmap.Other"), 0);
  kernel.failures.clear();
  kernel.vm.wire_count = 0xFFFFFFFF;  // wraps
  for (const Case& c : kCases) {
    kernel.reserved_bytes = c.bytes;
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(sample().vm.wire_count, static_cast<std::uint32_t>(c.counted_bytes / kPage) - 1);
  }
  // The names were resolved once; a value of another length is none.
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "sysctlnametomib machdep.memmap.Other"), 1);
  kernel.reserved_bytes = kCases[2].bytes;
  kernel.reserved_length_bytes = 4;
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(sampler.reserved_pages, 0U);
}

TEST_F(SystemSampleTest, StartThatFails) {
  const std::string sysctl_message = std::string("libtop_init(): Error in sysctl(): ") + std::strerror(EPERM);
  const std::pair<const char*, std::string> kCases[] = {
      {"sysctl 6.24", sysctl_message},
      {"sysctl 1.8", sysctl_message},
      {"host_statistics", std::string("Error in host_statistics(): ") + kernel.mach_error_string(EPERM)},
  };
  for (const auto& [call, message] : kCases) {
    kernel.failures.clear();
    messages.clear();
    fail(call, fake::FakeKernel::kNoProcess, EPERM);
    EXPECT_EQ(start(), -1) << call;
    EXPECT_EQ(messages, std::vector<std::string>{message});
    EXPECT_EQ(libtop_init(nullptr, &messages), -1);  // says nothing, though it was given where to
    EXPECT_EQ(messages.size(), 1U);
  }
  kernel.failures.clear();
  messages.clear();
  host.device_registry.open_fails = true;
  EXPECT_EQ(start(), -1);
  EXPECT_EQ(messages, std::vector<std::string>{"Error in DeviceRegistryOpen()"});
  host.device_registry.open_fails = false;
  kernel.argument_limit_bytes = 123457;
  failNextAllocation(123457, 123457);
  EXPECT_EQ(start(), -1);
  EXPECT_EQ(messages.size(), 1U);
  EXPECT_EQ(start(), 0);
}

// Each way out of a sample: what it says, what it leaves lent, and whom the next walk finds.
TEST_F(SystemSampleTest, SampleThatFails) {
  struct Case {
    const char* call;
    const char* message;
    std::size_t ports_left;
    std::size_t arrays_left;
    std::vector<std::int32_t> walked;
    std::uint32_t
        total;  // of bytes, regions and pages: those of the sample before, unless it came to its own
  };
  const Case kCases[] = {
      {"gettimeofday", "", 0, 0, {}, 2},
      {"host_processor_sets", "Error in host_processor_sets(): failure", 0, 0, {}, 2},
      {"host_processor_set_priv", "Error in host_processor_set_priv(): failure", 1, 1, {}, 2},
      {"processor_set_tasks", "Error in processor_set_tasks(): failure", 2, 1, {}, 2},
      {"getloadavg", "Error in getloadavg(): Input/output error", 0, 0, {1, 2}, 0},
  };
  for (const std::int32_t pid : {1, 2}) {
    fake::FakeTask& task = kernel.addTask(pid, "worker");
    task.basic.virtual_size = 1;
    task.regions = regionsFrom(kPage, {top(ShareMode::private_pages, 1, 0)});
  }
  for (const Case& c : kCases) {
    kernel.failures.clear();
    messages.clear();
    kernel.ticks.user = 10;
    ASSERT_EQ(start(), 0);
    kernel.time = at(200);
    sample();
    kernel.ticks.user = 20;
    sample();
    const std::size_t ports_before = kernel.lentPorts();
    const std::size_t arrays_before = kernel.lentArrays();
    ASSERT_EQ(libtop_tsamp()->cpu_prev.user, 10U);
    kernel.ticks.user = 30;
    kernel.time = at(300);
    fail(c.call, fake::FakeKernel::kNoProcess, kKernelFailure);
    EXPECT_EQ(libtop_sample(true, true), -1) << c.call;
    EXPECT_EQ(messages, *c.message ? std::vector<std::string>{c.message} : std::vector<std::string>{});
    EXPECT_EQ(kernel.lentPorts() - ports_before, c.ports_left) << c.call;
    EXPECT_EQ(kernel.lentArrays() - arrays_before, c.arrays_left) << c.call;
    const SystemSample& tsamp = *libtop_tsamp();
    EXPECT_EQ(tsamp.seq, 3U);
    EXPECT_EQ(tsamp.cpu.user, 20U);
    EXPECT_EQ(tsamp.cpu_prev.user, 20U);
    EXPECT_EQ(tsamp.time_prev, at(200));
    EXPECT_EQ(tsamp.threads, 2U);
    EXPECT_EQ(tsamp.virtual_total, c.total) << c.call;
    EXPECT_EQ(tsamp.region_count_total, c.total);
    EXPECT_EQ(tsamp.private_resident_total, c.total * kPage);
    EXPECT_EQ(walked(), c.walked) << c.call;
  }
}

TEST_F(SystemSampleTest, EveryPortAndArrayIsHandedBack) {
  kernel.processor_set_count = 3;
  for (const std::int32_t pid : {1, 2, 3}) {
    fake::FakeTask& task = kernel.addTask(pid, "worker");
    task.processor_set = pid - 1;
    task.port_count = 5;
    task.threads.resize(static_cast<std::size_t>(pid), task.threads[0]);
  }
  const SystemSample& tsamp = sample();
  EXPECT_EQ(kernel.lentPorts(), 0U);
  EXPECT_EQ(kernel.lentArrays(), 0U);
  EXPECT_EQ(tsamp.threads, 3U);  // of the last set alone
  EXPECT_EQ(tsamp.state_counts, (std::array<std::uint32_t, 8>{0, 3, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(walked(), (std::vector<std::int32_t>{1, 2, 3}));
}

fake::FakeRegion ownRegion(std::uint64_t address, std::uint64_t size, ShareMode mode,
                           std::uint32_t protection, std::uint32_t pages) {
  return {.address = address,
          .size = size,
          .submap = {.protection = protection, .pages_resident = pages, .share_mode = mode}};
}

TEST_F(SystemSampleTest, SharedLibrariesOfTheOwnTask) {
  constexpr std::uint64_t k64 = 0x7FFF60000000;
  kernel.own_regions = {
      ownRegion(0x8000'0000, 0x1000, ShareMode::shared, 5, 1000),            // before the range
      ownRegion(0x9000'0000, 0x2000, ShareMode::copy_on_write, 5, 1),        // code
      ownRegion(0x9000'2000, 0x4000, ShareMode::shared, 7, 2),               // code, though writable
      ownRegion(0x9100'0000, 0x8000, ShareMode::true_shared, 3, 4),          // data
      ownRegion(0xAFFF'0000, 0x20000, ShareMode::shared, 1, 8),              // read-only; ends outside
      ownRegion(0xB100'0000, 0x1000, ShareMode::shared, 5, 1000),            // between the ranges
      ownRegion(k64 + 0x1000, 0x100000, ShareMode::private_pages, 5, 1000),  // its size alone
      ownRegion(k64 + 0x200000, 0x200000, ShareMode::shared, 0, 16),
      ownRegion(0x8000'0000'0000, 0x1000, ShareMode::shared, 5, 1000),
  };
  kernel.addTask(1, "one");
  const auto sums = [](const SystemSample& s) {
    return Values{s.shlib_virtual, s.shlib_code_regions, s.shlib_code, s.shlib_data, s.shlib_readonly};
  };
  const Values found = {0x32E000, 2, 3 * kPage, 4 * kPage, 24 * kPage};
  EXPECT_EQ(sums(sample(true, true)), found);
  // Unasked for, they stand; asked for, they are summed afresh.
  kernel.own_regions.clear();
  EXPECT_EQ(sums(sample(true, false)), found);
  EXPECT_EQ(sums(sample(true, true)), Values(5));
  // With an interval they are summed in the first sample of each.
  sampler.shlib_interval = 3;
  std::uint64_t address = 0x9000'0000;
  for (const std::uint32_t regions : {1U, 1U, 1U, 4U}) {
    kernel.own_regions.push_back(ownRegion(address, kPage, ShareMode::shared, 5, 1));
    address += kPage;
    EXPECT_EQ(sample(true, true).shlib_code_regions, regions);
  }
}

TEST_F(SystemSampleTest, SecondStartReleasesWhatTheFirstLeft) {
  for (int start_count = 0; start_count < 2; ++start_count) {
    kernel.addTask(1, "one").regions = regionsFrom(kPage, {top(ShareMode::shared, 0, 1)});
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(libtop_tsamp()->seq, 0U);
    EXPECT_FALSE(sampler.processes.first());
    EXPECT_EQ(sample().shared_resident_total, kPage);
    EXPECT_TRUE(libtop_piterate());  // a walk cut short by the next start
  }
  libtop_fini();
  EXPECT_FALSE(libtop_piterate());
  ASSERT_EQ(start(), 0);
}

using SystemSampleDeathTest = SystemSampleTest;

TEST_F(SystemSampleDeathTest, NoMemoryForTheInterfaceListEndsTheProcess) {
  kernel.interface_list.assign(54321, '\0');
  ASSERT_EQ(start(), 0);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        failNextAllocation(54321, 54321);
        libtop_sample(true, false);
      },
      testing::ExitedWithCode(1), "^malloc failed\n$");
}

TEST_F(SystemSampleDeathTest, WalkBeforeTheFirstSample) {
  ASSERT_EQ(start(), 0);
  EXPECT_DEATH(libtop_piterate(), "libtop_piterate: libtop:502: .*: tsamp.seq != 0");
}

}  // namespace
}  // namespace volorn
