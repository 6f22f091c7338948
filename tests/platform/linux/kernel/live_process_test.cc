#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>

#include "platform/linux/kernel/parse_elf.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/linux_kernel.h"

namespace volorn::linux_host {
namespace {

using Microseconds = std::chrono::microseconds;

void burnCpu(std::chrono::milliseconds time) {
  timespec used = {};
  do {
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  } while (std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec) < time);
}

// A process with a thread that has ended, one that waits, and the first, which waits too. Each has used the
// processor.
class LiveProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(ready_), 0);
    ASSERT_EQ(pipe(never_), 0);
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) runChild();
    char byte = 0;
    ASSERT_EQ(read(ready_[0], &byte, 1), 1);
    waitForStates(pid_, "SS");
  }

  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    for (const int fd : {ready_[0], ready_[1], never_[0], never_[1]}) close(fd);
  }

  [[noreturn]] void runChild() {
    std::thread(burnCpu, std::chrono::milliseconds(60)).join();
    std::thread waiting([this] {
      burnCpu(std::chrono::milliseconds(60));
      char byte = 0;
      static_cast<void>(!write(ready_[1], "", 1));
      static_cast<void>(!read(never_[0], &byte, 1));
    });
    burnCpu(std::chrono::milliseconds(60));
    char byte = 0;
    static_cast<void>(!read(never_[0], &byte, 1));
    _exit(0);
  }

  std::string folder() const { return "/proc/" + std::to_string(pid_); }

  static std::string textOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // A field of `stat` behind the name, counted as proc(5) does.
  static std::string statField(const std::filesystem::path& path, int number) {
    const std::string text = textOf(path);
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string field;
    for (int i = 2; i < number; ++i) fields >> field;
    return field;
  }

  // In the order of the threads' numbers.
  static std::string statesOf(pid_t pid) {
    std::string letters;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
      letters += statField(thread.path() / "stat", 3);
    }
    return letters;
  }

  static void waitForStates(pid_t pid, const std::string& letters) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    while (statesOf(pid) != letters && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_EQ(statesOf(pid), letters);
  }

  // The sum of the numbers on the lines of this key.
  static std::uint64_t statusNumber(const std::filesystem::path& path, const std::string& key) {
    std::ifstream file(path);
    std::uint64_t sum = 0;
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(key)) sum += std::stoull(line.substr(line.find(':') + 1));
    }
    return sum;
  }

  static Microseconds time(TimeStamp stamp) {
    return std::chrono::seconds(stamp.seconds) + Microseconds(stamp.microseconds);
  }

  PortName lentTask() {
    PortName port = 0;
    EXPECT_EQ(kernel_.task_for_pid(kernel_.mach_task_self(), pid_, port), kKernelSuccess);
    return port;
  }

  std::vector<ThreadBasicInfo> threadsOf(PortName task) {
    PortArray ports;
    EXPECT_EQ(kernel_.task_threads(task, ports), kKernelSuccess);
    std::vector<ThreadBasicInfo> threads(ports.size());
    for (std::size_t i = 0; i < ports.size(); ++i) {
      EXPECT_EQ(kernel_.thread_info(ports[i], threads[i]), kKernelSuccess);
    }
    return threads;
  }

  LinuxKernel kernel_{"/proc"};
  int ready_[2] = {-1, -1};
  int never_[2] = {-1, -1};
  pid_t pid_ = 0;
};

TEST_F(LiveProcessTest, TimesOfEndedAndLiveThreadsMakeTheProcess) {
  const PortName task = lentTask();
  TaskBasicInfo basic = {};
  ASSERT_EQ(kernel_.task_info(task, basic), kKernelSuccess);
  const std::vector<ThreadBasicInfo> threads = threadsOf(task);
  ASSERT_EQ(threads.size(), 2U);
  Microseconds sum = time(basic.user_time) + time(basic.system_time);
  EXPECT_GT(sum.count(), 0) << "the ended thread";
  for (const ThreadBasicInfo& thread : threads) {
    EXPECT_EQ(thread.run_state, RunState::waiting);
    EXPECT_LT(thread.sleep_time_seconds, 600);
    const Microseconds own = time(thread.user_time) + time(thread.system_time);
    EXPECT_GT(own.count(), 0);
    sum += own;
  }
  const long ticks =
      std::stol(statField(folder() + "/stat", 14)) + std::stol(statField(folder() + "/stat", 15));
  EXPECT_EQ(sum, Microseconds(ticks * 1'000'000 / sysconf(_SC_CLK_TCK)));
  TaskPowerInfo power = {};
  ASSERT_EQ(kernel_.task_info(task, power), kKernelSuccess);
  EXPECT_EQ(power.values[0] + power.values[1], static_cast<std::uint64_t>(sum.count()) * 1000);
}

TEST_F(LiveProcessTest, FiguresAreThoseThatProcTellsOtherwise) {
  const PortName task = lentTask();
  TaskBasicInfo basic = {};
  TaskVmInfo vm = {};
  TaskEventsInfo events = {};
  TaskKernelMemoryInfo kernel_memory = {};
  PortArray names;
  PortArray types;
  ASSERT_EQ(kernel_.task_info(task, basic), kKernelSuccess);
  ASSERT_EQ(kernel_.task_info(task, vm), kKernelSuccess);
  ASSERT_EQ(kernel_.task_info(task, events), kKernelSuccess);
  ASSERT_EQ(kernel_.task_info(task, kernel_memory), kKernelSuccess);
  ASSERT_EQ(kernel_.mach_port_names(task, names, types), kKernelSuccess);
  std::istringstream statm(textOf(folder() + "/statm"));
  std::uint64_t mapped = 0;
  std::uint64_t resident = 0;
  statm >> mapped >> resident;
  const auto page_size = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(basic.virtual_size, mapped * page_size);
  EXPECT_EQ(basic.resident_size, resident * page_size);
  EXPECT_EQ(vm.internal_bytes, statusNumber(folder() + "/status", "RssAnon") * 1024);
  EXPECT_GT(kernel_memory.bytes[0], statusNumber(folder() + "/status", "VmPTE") * 1024);

  std::uint64_t switches = 0;
  for (const auto& thread : std::filesystem::directory_iterator(folder() + "/task")) {
    switches += statusNumber(thread.path() / "status", "voluntary_ctxt_switches");
    switches += statusNumber(thread.path() / "status", "nonvoluntary_ctxt_switches");
  }
  EXPECT_EQ(static_cast<std::uint32_t>(events.counters[kTaskEventContextSwitches]), switches);
  const std::filesystem::directory_iterator descriptors(folder() + "/fd");
  EXPECT_EQ(names.size(), static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors))));
  EXPECT_EQ(types.size(), names.size());
}

TEST_F(LiveProcessTest, IdentityIsTrue) {
  KinfoProc record = {};
  const std::int32_t process_name[] = {1, 14, 1, pid_};
  TimeStamp now = {};
  ASSERT_EQ(kernel_.gettimeofday(now), 0);
  ASSERT_EQ(kernel_.sysctl(process_name, record), 0);
  EXPECT_EQ(record.uid, geteuid());
  EXPECT_EQ(record.ppid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(record.pgid, static_cast<std::uint32_t>(getpgrp()));
  EXPECT_LT(std::abs(now.seconds - record.started.seconds), 600);

  const std::int32_t arguments_name[] = {1, 49, pid_};
  std::string expected = std::filesystem::read_symlink("/proc/self/exe").string();
  expected += '\0' + textOf("/proc/self/cmdline");
  std::string arguments(expected.size() + 10, '\0');
  std::size_t length = arguments.size();
  ASSERT_EQ(kernel_.sysctl(arguments_name, std::as_writable_bytes(std::span(arguments)).data(), length), 0);
  EXPECT_EQ(arguments.substr(0, length), expected);
}

TEST_F(LiveProcessTest, AStoppedThenADeadThenNoProcess) {
  siginfo_t event = {};
  const auto id = static_cast<id_t>(pid_);
  kill(pid_, SIGSTOP);
  ASSERT_EQ(waitid(P_PID, id, &event, WSTOPPED), 0);
  for (const ThreadBasicInfo& thread : threadsOf(lentTask())) EXPECT_EQ(thread.run_state, RunState::stopped);

  const PortName before = lentTask();
  kill(pid_, SIGKILL);
  ASSERT_EQ(waitid(P_PID, id, &event, WEXITED | WNOWAIT), 0);
  const PortName dead = lentTask();
  const std::vector<ThreadBasicInfo> threads = threadsOf(dead);
  ASSERT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads[0].run_state, RunState::halted);
  TaskBasicInfo basic = {.suspend_count = 1,
                         .virtual_size = 1,
                         .resident_size = 1,
                         .user_time = {},
                         .system_time = {},
                         .policy = 1};
  ASSERT_EQ(kernel_.task_info(dead, basic), kKernelSuccess);
  EXPECT_EQ(basic.resident_size, 0U);

  ASSERT_EQ(waitpid(pid_, nullptr, 0), pid_);
  PortName none = 0;
  EXPECT_EQ(kernel_.task_for_pid(kernel_.mach_task_self(), pid_, none), kKernelInvalidArgument);
  EXPECT_EQ(kernel_.task_info(before, basic), kKernelInvalidArgument);
  pid_ = 0;
}

// The process's own files then tell of no memory, no descriptors and no executable; those of its threads do.
TEST_F(LiveProcessTest, AProcessOutlivesItsFirstThread) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);  // this thread alone
  }
  waitForStates(pid, "ZS");
  char name[16] = {};
  PortName task = 0;
  TaskResidentSize report = {};
  TaskExtmodInfo id = {};
  TaskBasicInfo basic = {};
  PortArray descriptors;
  PortArray types;
  ProcTaskAllInfo all = {};
  kernel_.proc_name(pid, name, sizeof name);
  kernel_.proc_pidinfo(pid, all);
  ASSERT_EQ(kernel_.task_for_pid(kernel_.mach_task_self(), pid, task), kKernelSuccess);
  EXPECT_EQ(kernel_.task_info(task, report), kKernelSuccess);
  EXPECT_EQ(kernel_.task_info(task, id), kKernelSuccess);
  LinuxKernel fresh("/proc");
  ASSERT_EQ(fresh.task_for_pid(fresh.mach_task_self(), pid, task), kKernelSuccess);
  EXPECT_EQ(fresh.task_info(task, basic), kKernelSuccess);
  EXPECT_EQ(fresh.mach_port_names(task, descriptors, types), kKernelSuccess);
  EXPECT_GT(report.resident_size, 100'000U);
  EXPECT_EQ(basic.resident_size, report.resident_size);
  EXPECT_NE(id.task_uuid, BuildId{});
  EXPECT_GE(descriptors.size(), 4U);
  // The executable is no shared library, which would be shown elsewhere.
  const auto code = reinterpret_cast<std::uint64_t>(&parseProcessStat);
  RegionTopInfo region = {};
  std::uint64_t address = code;
  std::uint64_t size = 0;
  EXPECT_EQ(fresh.mach_vm_region(task, address, size, region), kKernelSuccess);
  EXPECT_LE(address, code);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace
}  // namespace volorn::linux_host
