#include "platform/linux/linux_kernel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

using namespace std::string_literals;

class LinuxKernelTest : public ::testing::Test {
 protected:
  LinuxKernelTest() {
    writeSystem(tree_);
    tree_.write("thread-self/sched", schedule("5500.0", 1));
  }

  static std::string schedule(const std::string& last_ran_ms, int switches) {
    return "x (1, #threads: 1)\n" + std::string(67, '-') + "\nse.exec_start : " + last_ran_ms +
           "\nnr_switches : " + std::to_string(switches) + "\n";
  }

  void writeProcess(int pid, const ProcessFixture& process) {
    process.write(tree_, pid);
    tree_.write(std::to_string(pid) + "/comm", std::string(process.name) + "\n");
    tree_.write(std::to_string(pid) + "/cmdline", "run\0-x\0"s);
  }

  void writeThread(int pid, int thread, const ProcessFixture& stat, const std::string& sched) {
    const std::string folder = std::to_string(pid) + "/task/" + std::to_string(thread) + "/";
    tree_.write(folder + "stat", stat.stat(thread));
    if (!sched.empty()) tree_.write(folder + "sched", sched);
  }

  void removeProcess(int pid) { std::filesystem::remove_all(tree_.at(std::to_string(pid))); }

  PortName portOf(int pid) {
    PortName port = 0;
    EXPECT_EQ(kernel_.task_for_pid(kernel_.mach_task_self(), pid, port), kKernelSuccess);
    return port;
  }

  int processOf(int pid, KinfoProc& record) {
    const std::int32_t name[] = {1, 14, 1, pid};
    return kernel_.sysctl(name, record);
  }

  static std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator own("/proc/self/fd");
    return std::distance(begin(own), end(own));
  }

  FixtureTree tree_;
  LinuxKernel kernel_{tree_.root()};
};

TEST_F(LinuxKernelTest, TheProcessRecordIsThatOfStatAndStatus) {
  writeProcess(42, {.name = "((bash process)\nx", .start_ticks = 250});
  KinfoProc record = {};
  ASSERT_EQ(processOf(42, record), 0);
  EXPECT_STREQ(record.command.data(), "((bash process)\n");  // 16 bytes, and a NUL
  EXPECT_EQ(record.flags, 64U);
  const auto microseconds = [](clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
  };
  const std::int64_t started = record.started.seconds * 1'000'000 + record.started.microseconds;
  const std::int64_t age = microseconds(CLOCK_REALTIME) - started;
  EXPECT_NEAR(static_cast<double>(age), static_cast<double>(microseconds(CLOCK_BOOTTIME) - 2'500'000),
              20'000);
  KinfoProc again = {};
  ASSERT_EQ(processOf(42, again), 0);
  EXPECT_EQ(again.started, record.started) << "whenever it is told";
  EXPECT_EQ(processOf(43, record), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(LinuxKernelTest, WhileAPortIsLentItsProcessIsReadOnce) {
  writeProcess(42, {});
  const PortName port = portOf(42);
  TaskBasicInfo info = {};
  ASSERT_EQ(kernel_.task_info(port, info), kKernelSuccess);
  EXPECT_EQ(info.resident_size, 8U * 1024);
  EXPECT_EQ(info.virtual_size, 16U * 1024);
  writeProcess(42, {.resident_kib = 80});
  ASSERT_EQ(kernel_.task_info(port, info), kKernelSuccess);
  EXPECT_EQ(info.resident_size, 8U * 1024);
  EXPECT_EQ(kernel_.mach_port_deallocate(kernel_.mach_task_self(), port), kKernelSuccess);
  EXPECT_EQ(kernel_.task_info(port, info), kKernelInvalidArgument);
  ASSERT_EQ(kernel_.task_info(portOf(42), info), kKernelSuccess);
  EXPECT_EQ(info.resident_size, 80U * 1024);
}

TEST_F(LinuxKernelTest, FewFoldersAreOpenAndAnotherProcessOfThePidIsNotTakenForTheSame) {
  constexpr int kProcesses = 40;
  const std::ptrdiff_t before = openDescriptors();
  PortName ports[kProcesses] = {};
  for (int i = 0; i < kProcesses; ++i) {
    writeProcess(100 + i, {.start_ticks = 1000 + i});
    ports[i] = portOf(100 + i);
  }
  EXPECT_LE(openDescriptors() - before, 8);
  removeProcess(100);
  writeProcess(100, {.start_ticks = 5000});
  TaskBasicInfo info = {};
  EXPECT_EQ(kernel_.task_info(ports[0], info), kKernelInvalidArgument);
  EXPECT_EQ(kernel_.task_info(ports[0], info), kKernelInvalidArgument);
  for (int i = 1; i < kProcesses; ++i) EXPECT_EQ(kernel_.task_info(ports[i], info), kKernelSuccess) << i;
  EXPECT_LE(openDescriptors() - before, 8);
  for (const PortName port : ports) kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxKernelTest, ThreadsAndTheEndedOnesAddUpToTheProcess) {
  writeProcess(42, {.threads = 2, .user_ticks = 120, .system_ticks = 60});
  writeThread(42, 42, {.state = 'D', .user_ticks = 20, .system_ticks = 61}, schedule("2000.5", 5));
  writeThread(42, 43, {.state = 'I', .user_ticks = 30, .system_ticks = 0}, schedule("2000.5", 70));
  writeThread(42, 44, {.state = 'R'}, "");  // as of a kernel that tells no schedules
  tree_.write("42/task/44/status",
              "Uid:\t7\t8\nvoluntary_ctxt_switches:\t3\nnonvoluntary_ctxt_switches:\t1\n");
  const PortName port = portOf(42);
  TaskBasicInfo basic = {};
  ASSERT_EQ(kernel_.task_info(port, basic), kKernelSuccess);
  EXPECT_EQ(basic.user_time, (TimeStamp{.seconds = 0, .microseconds = 690000}));  // 180 - 81 - 30 ticks
  EXPECT_EQ(basic.system_time, TimeStamp());
  PortArray threads;
  ASSERT_EQ(kernel_.task_threads(port, threads), kKernelSuccess);
  std::set<std::pair<RunState, std::int32_t>> states;  // and how long they have slept, in seconds
  for (const PortName thread : threads) {
    ThreadBasicInfo info = {};
    ASSERT_EQ(kernel_.thread_info(thread, info), kKernelSuccess);
    states.emplace(info.run_state, info.sleep_time_seconds);
  }
  EXPECT_EQ(states, (decltype(states){
                        {RunState::running, 0}, {RunState::uninterruptible, 0}, {RunState::waiting, 3}}));
  TaskEventsInfo events = {};
  ASSERT_EQ(kernel_.task_info(port, events), kKernelSuccess);
  EXPECT_EQ(events.counters[kTaskEventContextSwitches], 79);
  // The ports of threads end with their task's.
  const PortName first = threads[0];
  kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
  ThreadBasicInfo info = {};
  EXPECT_EQ(kernel_.thread_info(first, info), kKernelInvalidArgument);
  EXPECT_EQ(kernel_.mach_vm_deallocate(kernel_.mach_task_self(), threads), kKernelSuccess);
  EXPECT_EQ(kernel_.mach_vm_deallocate(kernel_.mach_task_self(), threads), kKernelInvalidArgument);
}

TEST_F(LinuxKernelTest, SwitchesOfThreadsThatHaveEndedStay) {
  struct Thread {
    int id;
    int start_ticks;
    int switches;
  };
  const struct {
    const char* what;
    std::vector<Thread> threads;
    int total;
    int start_code = 4096;
  } kSteps[] = {
      {"one", {{42, 1000, 5}}, 5},
      {"two more", {{44, 1001, 4}, {42, 1000, 5}, {43, 1001, 70}}, 79},
      {"one has ended", {{42, 1000, 6}, {44, 1001, 5}}, 81},
      {"its number is used again", {{42, 1000, 6}, {43, 1002, 90}, {44, 1001, 5}}, 171},
      {"all but the first have ended", {{42, 1000, 7}}, 172},
      {"one more", {{42, 1000, 8}, {45, 1003, 30}}, 203},
      {"which has executed another program", {{42, 1000, 33}}, 206, 8192},
      {"another process", {{42, 2000, 3}}, 3},
  };
  for (const auto& [what, threads, total, start_code] : kSteps) {
    removeProcess(42);
    const auto first = std::ranges::find(threads, 42, &Thread::id);
    writeProcess(42, {.threads = static_cast<int>(threads.size()),
                      .start_ticks = first->start_ticks,
                      .start_code = start_code,
                      .context_switches = first->switches});
    for (const auto& [id, start_ticks, switches] : threads) {
      writeThread(42, id, {.start_ticks = start_ticks}, schedule("1.0", switches));
    }
    const PortName port = portOf(42);
    TaskEventsInfo events = {};
    for (int i = 0; i < 2; ++i) {  // asked about again they are the same
      ASSERT_EQ(kernel_.task_info(port, events), kKernelSuccess) << what;
      EXPECT_EQ(events.counters[kTaskEventContextSwitches], total) << what;
    }
    kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
  }
}

TEST_F(LinuxKernelTest, WhatNobodyMayReadIsNotTakenForNone) {
  const auto look = [&](int pid) {
    RegionTopInfo region = {};
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    PortArray names;
    PortArray types;
    const PortName port = portOf(pid);
    kernel_.mach_vm_region(port, address, size, region);
    kernel_.mach_port_names(port, names, types);
    kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
    const auto notes = kernel_.notesOn(pid).value();
    return std::to_string(notes.start_ticks) + (notes.regions_are_known ? " regions" : "") +
           (notes.descriptors_are_known ? " descriptors" : "");
  };
  EXPECT_FALSE(kernel_.notesOn(42));
  writeProcess(42, {});
  std::filesystem::remove(tree_.at("42/smaps"));
  EXPECT_EQ(look(42), "1000 descriptors") << "of no source";
  tree_.write("42/maps", "");  // a file that knows no query
  tree_.write("42/pagemap", "");
  writeProcess(42, {});
  EXPECT_EQ(look(42), "1000 regions descriptors");
  writeProcess(42, {.start_ticks = 1001});
  tree_.write("42/auxv", "");
  std::filesystem::remove_all(tree_.at("42/fd"));
  EXPECT_EQ(look(42), "1001") << "of a processor that is not known";
  writeProcess(42, {.start_ticks = 1002});
  tree_.write("42/status", "Uid:\t0\t0\t0\t0\nvoluntary_ctxt_switches:\t1\n");
  EXPECT_EQ(look(42), "1002 regions descriptors") << "a thread of the kernel's";
  const PortName port = portOf(42);
  TaskPowerInfo power = {};
  ASSERT_EQ(kernel_.task_info(port, power), kKernelSuccess);
  removeProcess(42);
  TaskBasicInfo basic = {};
  ASSERT_EQ(kernel_.task_info(port, basic), kKernelInvalidArgument);
  RegionTopInfo region = {};
  std::uint64_t address = 0;
  EXPECT_EQ(kernel_.mach_vm_region(port, address, address, region), kKernelInvalidArgument);
  EXPECT_FALSE(kernel_.notesOn(42)->regions_are_known) << "it has gone meanwhile";
}

TEST_F(LinuxKernelTest, TheOwnTaskIsTheOneThatTheFolderTells) {
  writeProcess(getpid(), {});  // a stranger with the same number in another namespace
  std::int32_t pid = 0;
  EXPECT_EQ(kernel_.pid_for_task(kernel_.mach_task_self(), pid), kKernelInvalidArgument);
  std::filesystem::create_symlink("42", tree_.at("self"));
  EXPECT_EQ(kernel_.pid_for_task(kernel_.mach_task_self(), pid), kKernelSuccess);
  EXPECT_EQ(pid, 42);
}

TEST_F(LinuxKernelTest, AnIdleCountThatFallsIsHeld) {
  for (const auto& [idle, shown] :
       {std::pair{"4294967290", 4294967295U}, {"4294967200", 4294967295U}, {"4294967296", 5U}}) {
    tree_.write("stat", "cpu  1 2 3 " + std::string(idle) + " 5 6 7\n");
    CpuTicks ticks = {};
    ASSERT_EQ(kernel_.host_statistics(kernel_.mach_host_self(), ticks), kKernelSuccess);
    EXPECT_EQ(ticks.idle, shown) << idle;
  }
}

TEST_F(LinuxKernelTest, AnOnlyThreadsScheduleIsReadAgainOnceItHasRun) {
  const struct {
    int context_switches;
    const char* last_ran_ms;
    std::int32_t sleep_seconds;
  } kSteps[] = {{6, "2500.0", 3}, {6, "4500.0", 3}, {7, "4500.0", 1}};  // the machine's clock stands at 5500
  for (const auto& [context_switches, last_ran_ms, sleep_seconds] : kSteps) {
    writeProcess(42, {.context_switches = context_switches});
    tree_.write("42/sched", schedule(last_ran_ms, context_switches));
    const PortName port = portOf(42);
    PortArray threads;
    ThreadBasicInfo info = {};
    ASSERT_EQ(kernel_.task_threads(port, threads), kKernelSuccess);
    ASSERT_EQ(kernel_.thread_info(threads[0], info), kKernelSuccess);
    EXPECT_EQ(info.sleep_time_seconds, sleep_seconds) << context_switches << ' ' << last_ran_ms;
    kernel_.mach_vm_deallocate(kernel_.mach_task_self(), threads);
    kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
  }
}

TEST_F(LinuxKernelTest, TheArgumentsFollowTheExecutable) {
  writeProcess(42, {});
  std::filesystem::create_symlink("/usr/bin/run", tree_.at("42/exe"));
  const std::int32_t name[] = {1, 49, 42};
  const std::string whole = "/usr/bin/run\0run\0-x\0"s;
  std::size_t length = 0;
  ASSERT_EQ(kernel_.sysctl(name, nullptr, length), 0);
  EXPECT_EQ(length, whole.size());
  for (const std::size_t room : {std::size_t{0}, std::size_t{5}, std::size_t{15}, std::size_t{100}}) {
    std::byte buffer[100] = {};
    length = room;
    ASSERT_EQ(kernel_.sysctl(name, buffer, length), 0);
    EXPECT_EQ(length, std::min(room, whole.size()));
    EXPECT_EQ(std::memcmp(buffer, whole.data(), length), 0) << room;
  }
}

TEST_F(LinuxKernelTest, TheProcessorTypeIsReadAgainForAnotherProgramOnly) {
  std::int32_t name[12] = {};
  std::size_t length = std::size(name) - 1;
  ASSERT_EQ(kernel_.sysctlnametomib("sysctl.proc_cputype", name, length), 0);
  name[length] = 42;
  const auto typeOf42 = [&] {
    std::uint32_t type = 0xBAD;
    return kernel_.sysctl(SysctlName(name, length + 1), type) == 0 ? type : 0xBAD;
  };
  EXPECT_EQ(typeOf42(), 0xBADU);
  writeProcess(42, {});
  tree_.write("42/auxv", "\0\0\0\x21\x21\0\0\0"s);  // the word that is not 0 in either byte order: of 32 bits
  const std::uint32_t of_32_bits = typeOf42();
  tree_.write("42/auxv", std::string(8, '\0'));  // of 64
  EXPECT_EQ(typeOf42(), of_32_bits);
  writeProcess(42, {.start_ticks = 1001});
  EXPECT_NE(typeOf42(), of_32_bits);
  EXPECT_EQ(typeOf42() & 0xFFFFFF, of_32_bits);                 // the same but for its size
  writeProcess(42, {.start_ticks = 1001, .start_code = 8192});  // the same process has executed another
  tree_.write("42/auxv", "\0\0\0\x21\x21\0\0\0"s);
  EXPECT_EQ(typeOf42(), of_32_bits);
  writeProcess(42, {.start_ticks = 1002});
  tree_.write("42/auxv", "");
  EXPECT_EQ(typeOf42(), 0U);
  EXPECT_EQ(kernel_.sysctlnametomib("machdep.memmap.Reserved", name, length), -1);
}

TEST_F(LinuxKernelTest, ListsAreOfNumberedFoldersAndCutToTheRoom) {
  for (const int pid : {7, 42, 30000}) writeProcess(pid, {});
  tree_.write("42x/stat", "");
  tree_.write("0/stat", "");
  std::int32_t pids[8] = {};
  EXPECT_GE(kernel_.proc_listpids(kProcAllPids, 0, nullptr, 0), 12);
  EXPECT_EQ(kernel_.proc_listpids(kProcAllPids, 0, pids, sizeof(pids)), 12);
  EXPECT_EQ(kernel_.proc_listpids(kProcAllPids, 0, pids, 9), 8);
  // However many are born once the size is told.
  const int size = kernel_.proc_listpids(kProcAllPids, 0, nullptr, 0);
  for (int pid = 100; pid < 300; ++pid) std::filesystem::create_directory(tree_.at(std::to_string(pid)));
  std::vector<std::int32_t> listed(static_cast<std::size_t>(size));
  EXPECT_EQ(kernel_.proc_listpids(kProcAllPids, 0, listed.data(), size), 12);
  EXPECT_EQ(std::set(listed.begin(), listed.begin() + 3), (std::set<std::int32_t>{7, 42, 30000}));
  EXPECT_EQ(kernel_.proc_listpids(kProcAllPids, 0, listed.data(), size), size) << "the list of this moment";
  EXPECT_EQ(kernel_.proc_listpids(kProcAllPids + 1, 0, pids, sizeof(pids)), 0);
  char short_name[4] = "???";
  EXPECT_EQ(kernel_.proc_name(42, short_name, sizeof(short_name)), 3);
  EXPECT_STREQ(short_name, "wor");
  EXPECT_EQ(kernel_.proc_name(43, short_name, sizeof(short_name)), 0);
  ProcTaskAllInfo all = {};
  EXPECT_EQ(kernel_.proc_pidinfo(42, all), 232);
  EXPECT_LE(kernel_.proc_pidinfo(43, all), 0);
}

TEST_F(LinuxKernelTest, TheWholeSystemIsShownInPagesAndBytes) {
  std::ofstream(tree_.at("meminfo"), std::ios::app) << "SwapTotal: 0 kB\nSwapFree: 0 kB\n";
  std::uint64_t memory_bytes = 0;
  const std::int32_t memory_name[] = {6, 24};
  std::size_t length_bytes = sizeof(memory_bytes);
  ASSERT_EQ(kernel_.sysctl(memory_name, memory_bytes, length_bytes), 0);
  EXPECT_EQ(memory_bytes, 4000U * 1024);
  std::uint64_t page_size = 0;
  ASSERT_EQ(kernel_.host_page_size(kernel_.mach_host_self(), page_size), kKernelSuccess);
  const std::uint64_t page_kib = page_size / 1024;
  VmStatistics64 vm = {};
  std::uint32_t count = VmStatistics64::kCount;
  ASSERT_EQ(kernel_.host_statistics64(kernel_.mach_host_self(), vm, count), kKernelSuccess);
  EXPECT_EQ(count, 38U);
  EXPECT_EQ(vm.wire_count, 2000 / page_kib);
  EXPECT_EQ(vm.pageins, 80 / page_kib);
  EXPECT_EQ(vm.pageouts, 160 / page_kib);
  SwapUsage swap = {};
  const std::int32_t swap_name[] = {2, 5};
  EXPECT_EQ(kernel_.sysctl(swap_name, swap), 0);
  EXPECT_EQ(swap.total_bytes + swap.used_bytes, 0U);
}

TEST_F(LinuxKernelTest, AnInterfaceListThatDoesNotFitFails) {
  tree_.write("net/dev", "\n\n lo: 4294967296 2 0 0 0 0 0 0 5 6 0 0\n eth0: 1 2 0 0 0 0 0 0 3 4 0 0\n");
  const std::int32_t name[] = {4, 17, 0, 0, 6, 0};
  std::size_t length = 0;
  ASSERT_EQ(kernel_.sysctl(name, nullptr, length), 0);
  std::vector<std::byte> list(length);
  ASSERT_EQ(kernel_.sysctl(name, list.data(), length), 0);
  EXPECT_EQ(length, 2 * interface_message::kInformation64Bytes);
  std::uint64_t received = 0;
  std::memcpy(&received, list.data() + interface_message::kBytesReceivedOffset, sizeof(received));
  EXPECT_EQ(received, 4294967296U);
  --length;
  EXPECT_EQ(kernel_.sysctl(name, list.data(), length), -1);
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
}  // namespace volorn::linux_host
