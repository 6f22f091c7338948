#include "platform/linux/linux_kernel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>

#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

using namespace std::string_literals;

struct ProcessFixture {
  std::string name = "worker";
  char state = 'S';
  int threads = 1;
  int user_ticks = 0;
  int system_ticks = 0;
  int start_ticks = 1000;
  int start_code = 4194304;
  int context_switches = 6;

  std::string stat(int pid) const {
    const auto number = [](int value) { return ' ' + std::to_string(value); };
    return std::to_string(pid) + " (" + name + ") " + state + " 1 2 0 0 -1 64 10 0 3 0" + number(user_ticks) +
           number(system_ticks) + " 0 0 20 0" + number(threads) + " 0" + number(start_ticks) + " 4096 1 99" +
           number(start_code) + " 2 3 0 0 0 0 0 0 0 0 0 17 0 0\n";
  }
};

class LinuxKernelTest : public ::testing::Test {
 protected:
  LinuxKernelTest() {
    tree_.write("stat", "cpu  1 2 3 4 5 6 7\nbtime 1700000000\n");
    tree_.write("thread-self/sched", schedule("5500.0", 1));
  }

  static std::string schedule(const std::string& last_ran_ms, int switches) {
    return "x (1, #threads: 1)\n" + std::string(67, '-') + "\nse.exec_start : " + last_ran_ms +
           "\nnr_switches : " + std::to_string(switches) + "\n";
  }

  void writeProcess(int pid, const ProcessFixture& process, int resident_kib = 8) {
    const std::string folder = std::to_string(pid) + "/";
    tree_.write(folder + "stat", process.stat(pid));
    tree_.write(folder + "status", "Uid:\t7\t8\t9\t9\nVmSize:\t16 kB\nVmRSS:\t" +
                                       std::to_string(resident_kib) +
                                       " kB\nRssAnon:\t4 kB\nVmPTE:\t1 kB\nvoluntary_ctxt_switches:\t" +
                                       std::to_string(process.context_switches) + "\n");
    tree_.write(folder + "statm",
                "4 " + std::to_string(resident_kib * 1024 / sysconf(_SC_PAGESIZE)) + " 0\n");
    tree_.write(folder + "comm", process.name + "\n");
    tree_.write(folder + "cmdline", "run\0-x\0"s);
    std::filesystem::create_directories(tree_.at(folder + "fd"));
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
  EXPECT_EQ(record.uid, 8U);
  EXPECT_EQ(record.ppid, 1U);
  EXPECT_EQ(record.pgid, 2U);
  EXPECT_EQ(record.flags, 64U);
  EXPECT_EQ(record.started, (TimeStamp{.seconds = 1700000002, .microseconds = 500000}));
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
  writeProcess(42, {}, 80);
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

// Whichever file is the first that is no longer there.
TEST_F(LinuxKernelTest, AProcessThatVanishesFailsTheCallsThatFollow) {
  TaskBasicInfo basic = {};
  TaskPowerInfo power = {};
  PortArray threads;
  for (const auto file : {"stat", "status", "task"}) {
    writeProcess(42, {.threads = 2});
    writeThread(42, 42, {}, "");
    PortName port = 0;
    std::filesystem::remove_all(tree_.at("42/"s + file));
    if (kernel_.task_for_pid(kernel_.mach_task_self(), 42, port) != kKernelSuccess) continue;
    EXPECT_EQ(kernel_.task_info(port, basic), kKernelInvalidArgument) << file;
    EXPECT_EQ(kernel_.task_info(port, power), kKernelInvalidArgument) << file;
    EXPECT_EQ(kernel_.task_threads(port, threads), kKernelInvalidArgument) << file;
    removeProcess(42);
  }
}

TEST_F(LinuxKernelTest, ThreadsAndTheEndedOnesAddUpToTheProcess) {
  writeProcess(42, {.threads = 2, .user_ticks = 120, .system_ticks = 60});
  writeThread(42, 42, {.state = 'R', .user_ticks = 20, .system_ticks = 61}, schedule("5499.9", 5));
  writeThread(42, 43, {.state = 'D', .user_ticks = 30, .system_ticks = 0}, schedule("2000.5", 70));
  writeThread(42, 44, {.state = 'I'}, "");  // as of a kernel that tells no schedules
  tree_.write("42/task/44/status",
              "Uid:\t7\t8\nvoluntary_ctxt_switches:\t3\nnonvoluntary_ctxt_switches:\t1\n");
  const PortName port = portOf(42);
  TaskBasicInfo basic = {};
  ASSERT_EQ(kernel_.task_info(port, basic), kKernelSuccess);
  EXPECT_EQ(basic.user_time, (TimeStamp{.seconds = 0, .microseconds = 690000}));  // 180 - 81 - 30 ticks
  EXPECT_EQ(basic.system_time, TimeStamp());
  PortArray threads;
  ASSERT_EQ(kernel_.task_threads(port, threads), kKernelSuccess);
  ASSERT_EQ(threads.size(), 3U);
  const struct {
    RunState state;
    std::int32_t sleep_seconds;
  } expected[] = {{RunState::running, 0}, {RunState::uninterruptible, 3}, {RunState::waiting, 0}};
  int seen = 0;
  for (const PortName thread : threads) {
    ThreadBasicInfo info = {};
    ASSERT_EQ(kernel_.thread_info(thread, info), kKernelSuccess);
    for (const auto& [state, sleep_seconds] : expected) {
      if (info.run_state != state) continue;
      ++seen;
      EXPECT_EQ(info.sleep_time_seconds, sleep_seconds) << static_cast<int>(state);
    }
  }
  EXPECT_EQ(seen, 3);
  TaskEventsInfo events = {};
  ASSERT_EQ(kernel_.task_info(port, events), kKernelSuccess);
  EXPECT_EQ(events.counters[kTaskEventFaults], 13);
  EXPECT_EQ(events.counters[kTaskEventPageins], 3);
  EXPECT_EQ(events.counters[kTaskEventContextSwitches], 79);
  // The ports of threads end with their task's.
  const PortName first = threads[0];
  kernel_.mach_port_deallocate(kernel_.mach_task_self(), port);
  ThreadBasicInfo info = {};
  EXPECT_EQ(kernel_.thread_info(first, info), kKernelInvalidArgument);
  EXPECT_EQ(kernel_.mach_vm_deallocate(kernel_.mach_task_self(), threads), kKernelSuccess);
  EXPECT_EQ(kernel_.mach_vm_deallocate(kernel_.mach_task_self(), threads), kKernelInvalidArgument);
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
  tree_.write("meminfo",
              "MemTotal: 4000 kB\nMemFree: 1000 kB\nActive: 600 kB\nInactive: 400 kB\nSwapTotal: 0 kB\n"
              "SwapFree: 0 kB\n");
  tree_.write("vmstat", "pgpgin 80\npgpgout 160\npgactivate 3\npgfault 5\n");
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
