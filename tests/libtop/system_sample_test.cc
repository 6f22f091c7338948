#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "tests/failing_allocation.h"
#include "tests/libtop/sampler_fixture.h"

namespace volorn {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

PropertyTable statistics(std::int64_t first) {
  PropertyTable table;
  for (const char* key : {"Operations (Read)", "Operations (Write)", "Bytes (Read)", "Bytes (Write)"}) {
    table.set(key, PropertyValue{first++});
  }
  return table;
}

class SystemSampleTest : public SamplerTest {
 protected:
  struct Part {
    TimeStamp SystemSample::*time;
    CpuTicks SystemSample::*cpu;
    VmStatistics64 SystemSample::*vm;
    std::uint64_t Total64::*total;
  };
  static constexpr Part kNow = {&SystemSample::time, &SystemSample::cpu, &SystemSample::vm,
                                &Total64::current};
  static constexpr Part kBefore = {&SystemSample::time_prev, &SystemSample::cpu_prev, &SystemSample::vm_prev,
                                   &Total64::previous};
  static constexpr Part kBeginning = {&SystemSample::time_begin, &SystemSample::cpu_begin,
                                      &SystemSample::vm_begin, &Total64::begin};

  // Time, ticks, faults, and the eight totals.
  static Values figures(const Part& part) {
    const SystemSample& s = *libtop_tsamp();
    Values values = flat(s.*part.time, (s.*part.cpu).user, (s.*part.vm).faults);
    for (const Total64& total : {s.net_in_packets, s.net_out_packets, s.net_in_bytes, s.net_out_bytes,
                                 s.disk_read_ops, s.disk_write_ops, s.disk_read_bytes, s.disk_write_bytes}) {
      values.push_back(total.*part.total);
    }
    return values;
  }
};

TEST_F(SystemSampleTest, CurrentBeginAndPreviousValuesOverThreeSamples) {
  kernel.memory_bytes = 8ULL << 30;
  kernel.time = {.seconds = 100, .microseconds = 5};
  kernel.ticks = {.user = 1, .system = 2, .idle = 3, .nice = 4};
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(libtop_tsamp()->page_size, kPage);
  EXPECT_EQ(libtop_tsamp()->mem_size, 8ULL << 30);

  kernel.time = {.seconds = 200, .microseconds = 0};
  kernel.ticks.user = 11;
  kernel.vm.faults = 1000;
  kernel.load_averages = {0.1, 2.5, 1e10};
  kernel.swap = {
      .total_bytes = 9, .available_bytes = 5, .used_bytes = 4, .page_size_bytes = 1, .encrypted = 0};
  kernel.interface_list = fake::FakeKernel::interfaceMessage({1, 2, 3, 4}) +
                          fake::FakeKernel::interfaceMessage({500, 500, 500, 500}, 14) +
                          fake::FakeKernel::interfaceMessage({10, 20, 30, 40});
  auto& disks = host.device_registry.disks;
  for (const auto& table : {statistics(1), PropertyTable{}, statistics(10)}) {
    disks.push_back(fake::FakeDeviceRegistry::diskWith(table));
    disks.push_back(
        {.properties = table.find("Bytes (Read)") ? std::nullopt : std::optional(PropertyTable{})});
  }
  const SystemSample first = sample();
  // The first sample does not read the clock, and its totals are where everything begins.
  const Values at_first = {100'000'005, 11, 1000, 11, 22, 33, 44, 11, 13, 15, 17};
  Values at_start = at_first;
  at_start[1] = 1;
  EXPECT_EQ(figures(kNow), at_first);
  EXPECT_EQ(figures(kBefore), at_start);
  EXPECT_EQ(figures(kBeginning), at_start);
  EXPECT_EQ(first.loadavg, (std::array<float, 3>{0.1F, 2.5F, 1e10F}));
  EXPECT_EQ(first.vm, kernel.vm);
  EXPECT_EQ(first.swap, kernel.swap);
  EXPECT_EQ(flat(first.swap_valid, first.purgeable_valid), (Values{1, 1}));
  EXPECT_EQ(host.device_registry.held_services + host.device_registry.held_iterators, 0);

  kernel.ticks.user = 12;
  kernel.vm.faults = 2000;
  kernel.interface_list = fake::FakeKernel::interfaceMessage({100, 200, 300, 400});
  disks.resize(4);
  sample();
  EXPECT_EQ(figures(kNow), (Values{200'000'000, 12, 2000, 100, 200, 300, 400, 1, 2, 3, 4}));
  EXPECT_EQ(figures(kBefore), at_first);

  // What fails quietly in the third sample.
  for (const char* call : {"host_statistics64", "host_statistics", "sysctl 2.5", "sysctl 4.17 size"})
    fail(call);
  host.device_registry.search_fails = true;
  const SystemSample third = sample();
  EXPECT_EQ(figures(kNow), (Values{200'000'000, 12, 2000, 0, 0, 0, 0, 1, 2, 3, 4}));
  EXPECT_EQ(figures(kBefore), (Values{200'000'000, 12, 2000, 100, 200, 300, 400, 11, 13, 15, 17}));
  EXPECT_EQ(figures(kBeginning), at_start);
  EXPECT_EQ(third.swap_valid, 0U);
  EXPECT_EQ(third.swap, kernel.swap);
  EXPECT_EQ(messages, (std::vector<std::string>{"Error in host_statistics(): failure",
                                                "Error in DeviceRegistryFindServices()"}));
}

TEST_F(SystemSampleTest, BrokenListsCountWhatIsWhole) {
  const std::string whole = fake::FakeKernel::interfaceMessage({1, 2, 3, 4});
  constexpr std::size_t kShortest = interface_message::kInformation64Bytes;
  const auto message = [&whole](std::size_t bytes, std::size_t told_bytes) {
    std::string text = whole.substr(0, bytes);
    text[0] = static_cast<char>(told_bytes);
    return text;
  };
  for (const std::string& list :
       {whole + "\x01", whole + message(100, 101), message(kShortest - 1, kShortest - 1) + whole,
        message(kShortest, kShortest), whole + message(8, 0)}) {
    kernel.interface_list = list;
    EXPECT_EQ(sample().net_out_bytes.current, 4U);
  }
  fail("sysctl 4.17");
  host.device_registry.disks = {fake::FakeDeviceRegistry::diskWith(statistics(1)),
                                {.properties = {}, .copy_fails = true}};
  const SystemSample& tsamp = sample();
  EXPECT_EQ(flat(tsamp.net_out_bytes.current, tsamp.net_out_bytes.previous), (Values{0, 4}));
  // The service that could not be copied is not released.
  EXPECT_EQ(flat(tsamp.disk_read_ops.current, tsamp.disk_read_ops.begin), (Values{1, 0}));
  EXPECT_EQ(host.device_registry.held_services, 1);
  EXPECT_EQ(host.device_registry.held_iterators, 0);
  EXPECT_EQ(messages, std::vector<std::string>{"Error in DeviceRegistryCopyProperties()"});
  // And in a first sample that fails so, nothing begins.
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(sample().disk_read_ops.begin, 0U);
}

TEST_F(SystemSampleTest, KernelWithoutPurgeCounters) {
  kernel.vm.purges = 7;
  kernel.vm.purgeable_count = 8;
  kernel.vm_count = 36;
  kernel.load_averages_result = 0;  // none is no failure
  const SystemSample& tsamp = sample();
  EXPECT_EQ(flat(tsamp.purgeable_valid, tsamp.vm.purges, tsamp.vm.purgeable_count), Values(3));
}

TEST_F(SystemSampleTest, ReservedMemoryIsWiredInStepsOf128MiB) {
  struct Case {
    std::map<std::string, std::uint64_t, std::less<>> bytes;
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
  kernel.page_size_bytes = 0;
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
    std::uint64_t total;  // of bytes, regions and pages: of the sample before, unless it came to its own
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
    kernel.time.seconds = 200;
    sample();
    kernel.ticks.user = 20;
    sample();
    const std::size_t ports_before = kernel.lentPorts();
    const std::size_t arrays_before = kernel.lentArrays();
    ASSERT_EQ(libtop_tsamp()->cpu_prev.user, 10U);
    kernel.ticks.user = 30;
    kernel.time.seconds = 300;
    fail(c.call, fake::FakeKernel::kNoProcess, kKernelFailure);
    EXPECT_EQ(libtop_sample(true, true), -1) << c.call;
    EXPECT_EQ(messages, *c.message ? std::vector<std::string>{c.message} : std::vector<std::string>{});
    EXPECT_EQ(kernel.lentPorts() - ports_before, c.ports_left) << c.call;
    EXPECT_EQ(kernel.lentArrays() - arrays_before, c.arrays_left) << c.call;
    const SystemSample& s = *libtop_tsamp();
    EXPECT_EQ(flat(s.seq, s.cpu.user, s.cpu_prev.user, s.time_prev, s.threads, s.virtual_total,
                   s.region_count_total, s.private_resident_total),
              (Values{3, 20, 20, 200'000'000, 2, c.total, c.total, c.total * kPage}));
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

TEST_F(SystemSampleDeathTest, PromisesThatAreBroken) {
  ASSERT_EQ(start(), 0);
  EXPECT_DEATH(libtop_piterate(), "libtop_piterate: libtop:502: .*: tsamp.seq != 0");
  kernel.addTask(0, "");  // the kernel, taken for the launcher
  EXPECT_DEATH(libtop_sample(true, false), "libtop_p_proc_command: libtop:2091: .*: pinfo->psamp.pid != 0");
  const ProcessInfo pinfo = {};
  EXPECT_DEATH(libtop_p_pinfo_pid_comp(nullptr, &pinfo),
               "libtop_p_pinfo_pid_comp: libtop:2312: .*: a != NULL");
  EXPECT_DEATH(libtop_p_pinfo_pid_comp(&pinfo, nullptr),
               "libtop_p_pinfo_pid_comp: libtop:2313: .*: b != NULL");
}

}  // namespace
}  // namespace volorn
