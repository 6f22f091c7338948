#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "tests/failing_allocation.h"
#include "tests/libtop/sampler_fixture.h"

namespace volorn {
namespace {

constexpr std::int32_t kPid = 42;

ThreadBasicInfo thread(RunState state, std::int32_t sleep_time_seconds = 0, TimeStamp user_time = {},
                       TimeStamp system_time = {}, std::uint32_t flags = 0) {
  return {.user_time = user_time,
          .system_time = system_time,
          .run_state = state,
          .flags = flags,
          .sleep_time_seconds = sleep_time_seconds};
}

class ProcessUpdateTest : public SamplerTest {
 protected:
  fake::FakeTask& task = kernel.addTask(kPid, "worker");
};

TEST_F(ProcessUpdateTest, StateIsTheSmallestCodeOfTheThreads) {
  const auto waiting = RunState::waiting;
  const std::pair<std::vector<ThreadBasicInfo>, std::uint32_t> kCases[] = {
      {{}, 7},
      {{thread(RunState::running)}, 1},
      {{thread(RunState::uninterruptible)}, 2},
      {{thread(waiting, 0)}, 3},
      {{thread(waiting, 1)}, 4},
      {{thread(RunState::stopped)}, 5},
      {{thread(RunState::halted)}, 6},
      {{thread(RunState{9})}, 7},
      {{thread(RunState::halted), thread(waiting, 7), thread(RunState::stopped)}, 4},
      {{thread(RunState::running), thread(waiting), thread(RunState::running)}, 1},
  };
  for (const auto& [threads, state] : kCases) {
    task.threads = threads;
    const SystemSample& tsamp = sample();
    EXPECT_EQ(process(kPid).state, state);
    EXPECT_EQ(tsamp.state_counts[state], 1U);
    EXPECT_EQ(process(kPid).threads, threads.size());
    EXPECT_EQ(tsamp.threads, threads.size());
  }
  EXPECT_EQ(process(kPid).threads_prev, 3U);
  EXPECT_EQ(process(kPid).running_threads, 2U);
  EXPECT_EQ(process(kPid).running_threads_prev, 0U);
  sample();
  EXPECT_EQ(process(kPid).running_threads_prev, 2U);
}

TEST_F(ProcessUpdateTest, TimesOfTaskAndThreadsCarryOneSecondEach) {
  task.basic.user_time = {.seconds = 0, .microseconds = 600'000};
  task.basic.system_time = {.seconds = 0, .microseconds = 700'000};
  task.threads.clear();
  sample();
  EXPECT_EQ(process(kPid).total_time, (TimeStamp{.seconds = 1, .microseconds = 300'000}));
  EXPECT_EQ(process(kPid).total_time_prev, process(kPid).total_time);

  task.threads = {thread(RunState::running, 0, {.seconds = 0, .microseconds = 700'000})};
  sample();
  EXPECT_EQ(process(kPid).total_time, (TimeStamp{.seconds = 2, .microseconds = 0}));

  const TimeStamp nearly = {.seconds = 2, .microseconds = 999'999};
  task.threads = {thread(RunState::running, 0, nearly, nearly),
                  thread(RunState::running, 0, nearly, nearly, kThreadIdle)};
  sample();
  EXPECT_EQ(process(kPid).total_time, (TimeStamp{.seconds = 7, .microseconds = 299'998}));
  EXPECT_EQ(process(kPid).total_time_prev, (TimeStamp{.seconds = 2, .microseconds = 0}));
  EXPECT_EQ(process(kPid).total_time_begin, (TimeStamp{.seconds = 1, .microseconds = 300'000}));
  EXPECT_EQ(process(kPid).running_threads, 2U);  // an idle thread counts but for its time
}

// All figures that a task brings in one reading are `n` or made from it.
void setFigures(fake::FakeTask& task, std::uint32_t n) {
  const auto raw = static_cast<std::int32_t>(n);
  task.process.uid = n + 1;
  task.process.ppid = n + 2;
  task.process.pgid = n + 3;
  task.process.flags = n + 4;
  task.process.started = {.seconds = n, .microseconds = 5};
  task.basic.virtual_size = n * 100ULL;
  task.basic.resident_size = n * 10ULL;
  task.port_count = n % 50;
  for (std::size_t i = 0; i < 8; ++i) task.events.counters[i] = raw + static_cast<std::int32_t>(i);
  task.kernel_memory.bytes = {n, n + 1, n + 2, n + 3};
  task.power.values = {n, n + 1, n + 2, n + 3, n + 4, n + 5};
  task.vm = {.internal_bytes = n * 7ULL,
             .purgeable_volatile_pmap_bytes = n,
             .purgeable_volatile_resident_bytes = n * 2ULL};
  task.work_queue = {.threads = n, .running_threads = n + 1, .blocked_threads = n + 2, .state = 99};
}

using EventValues = std::array<std::uint64_t, 8>;

EventValues valuesOf(const ProcessSample& p, std::uint64_t EventTotal::*value = &EventTotal::value) {
  return {p.faults.*value,
          p.pageins.*value,
          p.cow_faults.*value,
          p.messages_sent.*value,
          p.messages_received.*value,
          p.syscalls_mach.*value,
          p.syscalls_bsd.*value,
          p.csw.*value};
}

TEST_F(ProcessUpdateTest, ValuesBeginningsAndPreviousValuesOverThreeSamples) {
  setFigures(task, 1001);
  task.events.counters[kTaskEventContextSwitches] = -5;  // unsigned, and about to wrap
  sample();
  const ProcessSample first = process(kPid);
  EXPECT_EQ(first.uid, 1002U);
  EXPECT_EQ(first.ppid, 1003U);
  EXPECT_EQ(first.pgid, 1004U);
  EXPECT_EQ(info(kPid).proc_flags, 1005U);
  EXPECT_EQ(first.started, (TimeStamp{.seconds = 1001, .microseconds = 5}));
  EXPECT_EQ(first.command, "worker");
  EXPECT_EQ(first.cpu_type, 0x1000007U);
  EXPECT_EQ(first.seq, 1U);
  EXPECT_EQ(first.seq_prev, 0U);
  EXPECT_EQ(first.resident, 10010U);
  EXPECT_EQ(first.ports, 1U);
  EXPECT_EQ(first.footprint, 6006U);
  EXPECT_EQ(first.purgeable_resident, 2002U);
  EXPECT_EQ(first.workqueue, (std::array<std::uint32_t, 3>{1001, 1002, 1003}));
  EXPECT_EQ(first.events_begin, first.events);
  EXPECT_EQ(first.events_prev, first.events);
  EXPECT_EQ(first.power_begin, first.power);
  EXPECT_EQ(first.power_prev, first.power);
  EXPECT_EQ(valuesOf(first), (EventValues{1001, 1002, 1003, 1004, 1005, 1006, 1007, 4294967291}));
  EXPECT_EQ(valuesOf(first, &EventTotal::value_prev), EventValues());

  setFigures(task, 2003);
  sample();
  const ProcessSample second = process(kPid);
  EXPECT_EQ(second.seq, 2U);
  EXPECT_EQ(second.seq_prev, 1U);
  EXPECT_EQ(second.resident, 20030U);
  EXPECT_EQ(second.resident_prev, 10010U);
  EXPECT_EQ(second.virtual_size, 200300U);
  EXPECT_EQ(second.virtual_size_prev, 100100U);
  EXPECT_EQ(second.ports_prev, 1U);
  EXPECT_EQ(second.footprint_prev, 6006U);
  EXPECT_EQ(second.purgeable_resident_prev, 2002U);
  EXPECT_EQ(second.threads_prev, 1U);
  EXPECT_EQ(second.workqueue_prev, first.workqueue);
  EXPECT_EQ(second.kernel_memory, task.kernel_memory.bytes);
  EXPECT_EQ(second.kernel_memory_prev, first.kernel_memory);
  EXPECT_EQ(second.power, task.power.values);
  EXPECT_EQ(second.events, task.events.counters);
  EXPECT_EQ(valuesOf(second), (EventValues{2003, 2004, 2005, 2006, 2007, 2008, 2009, 4294969306}));
  EXPECT_EQ(valuesOf(second, &EventTotal::value_prev), valuesOf(first));

  setFigures(task, 3001);
  sample();
  const ProcessSample& third = process(kPid);
  EXPECT_EQ(third.power_prev, second.power);
  EXPECT_EQ(third.power_begin, first.power);
  EXPECT_EQ(third.events_prev, second.events);
  EXPECT_EQ(third.events_begin, first.events);
}

// The bytes of the path that follows an executable's path, and the name made of it.
TEST_F(ProcessUpdateTest, CommandNames) {
  using namespace std::string_literals;
  struct Case {
    std::string command;
    std::string arguments;
    std::string name;
  };
  const std::string launcher(kLegacyLauncherName);
  const std::string in_parentheses = "(" + launcher + ")";
  const std::string two_strings = "/launcher\0\0\0/opt/tool\0-v\0"s;
  const Case kCases[] = {
      {"((bash process)", "", "((bash process)"},
      {"sixteen_letters_", "", "sixteen_letters_"},
      {launcher + "s", two_strings, launcher + "s"},
      {launcher, two_strings, "tool"},
      {"", two_strings, "tool"},
      {launcher.substr(0, 3), two_strings, "tool"},
      {"", "/launcher\0/opt/\0"s, ""},
      {"", "/launcher\0tool\0"s, ""},  // no '/'
      {"", "/launcher\0/tool"s, in_parentheses},
      {"", "/launcher\0\0"s, in_parentheses},
      {"", "/launcher"s, in_parentheses},
      {"", ""s, in_parentheses},
  };
  for (const Case& c : kCases) {
    task.setCommand(c.command);
    task.arguments = c.arguments;
    sample();
    EXPECT_EQ(process(kPid).command, c.name) << c.command << " with " << c.arguments;
  }
  // No more is read than the limit lets in.
  kernel.argument_limit_bytes = 12;
  task.arguments = two_strings;
  ASSERT_EQ(start(), 0);
  sample();
  EXPECT_EQ(process(kPid).command, in_parentheses);
}

// What becomes of a known process when one call about it fails.
TEST_F(ProcessUpdateTest, CallsThatFail) {
  using namespace std::string_literals;
  enum Outcome { kSkipped, kDropped, kKept };
  struct Case {
    const char* call;
    Outcome outcome;
    std::string message;
    // One that is not read anew, and the one before it.
    std::function<std::pair<std::uint64_t, std::uint64_t>(const ProcessSample&)> values;
  };
  const std::string no_such = std::strerror(ESRCH);
  const Case kCases[] = {
      {"pid_for_task", kSkipped, "", {}},
      {"sysctl 1.14.1", kSkipped, "kinfo_for_pid(): Error in sysctl(): " + no_such, {}},
      {"sysctl 1.49", kDropped, "libtop_p_proc_command(): Error in sysctl(): " + no_such, {}},
      {"sysctl sysctl.proc_cputype", kDropped, "", {}},
      {"task_info 18", kDropped, "", {}},
      {"task_threads", kKept, "", [](const auto& p) { return std::pair(p.threads, p.threads_prev); }},
      {"mach_port_names", kKept, "", [](const auto& p) { return std::pair(p.ports, p.ports_prev); }},
      {"task_info 2", kKept, "",
       [](const auto& p) { return std::pair(p.faults.value, p.faults.value_prev); }},
      {"task_info 2", kKept, "", [](const auto& p) { return std::pair(p.events[1], p.events_prev[1]); }},
      {"task_info 7", kKept, "",
       [](const auto& p) { return std::pair(p.kernel_memory[0], p.kernel_memory_prev[0]); }},
      {"task_info 21", kKept, "", [](const auto& p) { return std::pair(p.power[5], p.power_prev[5]); }},
      {"task_info 23", kKept, "", [](const auto& p) { return std::pair(p.footprint, p.footprint_prev); }},
      {"task_info 23", kKept, "",
       [](const auto& p) { return std::pair(p.purgeable_resident, p.purgeable_resident_prev); }},
  };
  for (const Case& c : kCases) {
    kernel.failures.clear();
    messages.clear();
    ASSERT_EQ(start(), 0);
    task.setCommand("");  // so that the arguments are read too
    for (const std::uint32_t figures : {1001U, 1502U}) {
      task.threads.push_back(thread(RunState::running));
      setFigures(task, figures);
      sample();
    }
    const ProcessSample before = process(kPid);
    task.threads.push_back(thread(RunState::running));
    setFigures(task, 2003);
    fail(c.call, kPid, ESRCH);
    const SystemSample& tsamp = sample();
    EXPECT_EQ(messages, c.message.empty() ? std::vector<std::string>{} : std::vector{c.message});
    EXPECT_EQ(tsamp.state_counts[1] + tsamp.state_counts[7], c.outcome == kKept ? 1U : 0U) << c.call;
    EXPECT_EQ(walked(), c.outcome == kKept ? std::vector{kPid} : std::vector<std::int32_t>{}) << c.call;
    if (c.outcome != kKept) continue;
    const auto [value, previous] = c.values(process(kPid));
    const auto [value_before, previous_before] = c.values(before);
    EXPECT_NE(value_before, previous_before) << c.call;
    EXPECT_EQ(value, value_before) << c.call;
    // Of the threads alone nothing is moved on before the call.
    EXPECT_EQ(previous, c.call == "task_threads"s ? previous_before : value_before) << c.call;
    EXPECT_EQ(process(kPid).resident, 20030U) << c.call;
  }
  EXPECT_EQ(kernel.lentPorts(), 0U);
  EXPECT_EQ(kernel.lentArrays(), 0U);
}

TEST_F(ProcessUpdateTest, NothingWasBeforeTheFirstSampleThoughItUpdatesTwice) {
  setFigures(task, 1001);
  task.regions = regionsFrom(kPage, {top(ShareMode::empty, 0, 0)});
  sample();
  PortName port = 0;
  ASSERT_EQ(kernel.task_for_pid(kernel.mach_task_self(), kPid, port), kKernelSuccess);
  EXPECT_EQ(libtop_process_update(port, true), kProcessUpdated);
  EXPECT_EQ(process(kPid).threads_prev, 0U);
  EXPECT_EQ(process(kPid).running_threads_prev, 0U);
  EXPECT_EQ(process(kPid).region_count_prev, 0U);
  EXPECT_EQ(process(kPid).workqueue_prev, (std::array<std::uint32_t, 3>{}));
  // A work queue that cannot be read is empty.
  fail("proc_pidinfo 12", kPid);
  sample();
  EXPECT_EQ(process(kPid).workqueue, (std::array<std::uint32_t, 3>{}));
  EXPECT_EQ(process(kPid).workqueue_prev, (std::array<std::uint32_t, 3>{1001, 1002, 1003}));
}

TEST_F(ProcessUpdateTest, UnreadableThreadKeepsItsPort) {
  task.threads = {thread(RunState::stopped), thread(RunState::running), thread(RunState::halted)};
  fail("thread_info", kPid, kKernelFailure, 1);
  sample();
  EXPECT_EQ(process(kPid).threads, 3U);
  EXPECT_EQ(process(kPid).state, kProcessStopped);
  EXPECT_EQ(kernel.lentPorts(), 2U);
  EXPECT_EQ(kernel.lentArrays(), 0U);
}

TEST_F(ProcessUpdateTest, ProcessorTypeNameIsResolvedOnce) {
  fail("sysctlnametomib sysctl.proc_cputype");
  sample();
  EXPECT_TRUE(walked().empty());
  kernel.failures.clear();
  kernel.processor_type_name_length = CachedName::kCapacity;
  sample();
  sample();
  EXPECT_EQ(process(kPid).cpu_type, 0x1000007U);
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "sysctlnametomib sysctl.proc_cputype"), 2);
  // An empty name leaves the type unknown.
  kernel.processor_type_name_length = 0;
  sampler.processor_type_name = {};
  sample();
  EXPECT_EQ(process(kPid).cpu_type, 0U);
}

TEST_F(ProcessUpdateTest, OutOfMemoryFailsTheSampleAfterAllProcesses) {
  task.setCommand("");
  task.arguments = std::string("/launcher\0/", 11) + std::string(3000, 'x') + '\0';
  kernel.addTask(kPid + 1, "after");
  ASSERT_EQ(start(), 0);
  failNextAllocation(sizeof(ProcessInfo), sizeof(ProcessInfo));
  EXPECT_EQ(libtop_sample(true, false), -1);
  EXPECT_EQ(walked(), std::vector{kPid + 1});
  failNextAllocation(3000, 4000);
  EXPECT_EQ(libtop_sample(true, false), -1);
  EXPECT_EQ(walked(), std::vector{kPid + 1});
  EXPECT_EQ(kernel.lentPorts(), 0U);
  kernel.ticks.user = 7;
  EXPECT_EQ(libtop_sample(true, false), 0);
  EXPECT_EQ(process(kPid).command, std::string(3000, 'x'));
  // The old name is gone before the new one is found.
  task.arguments.insert(task.arguments.size() - 1, std::string(500, 'y'));
  failNextAllocation(3500, 8000);
  EXPECT_EQ(libtop_sample(true, false), -1);
  EXPECT_EQ(process(kPid).command, "");
  EXPECT_EQ(libtop_tsamp()->cpu_prev.user, 7U);
}

TEST_F(ProcessUpdateTest, WalksAscendAndDropWhatTheSampleDidNotSee) {
  for (const std::int32_t pid : {7, -3, 1'000'000, 0, 99}) {
    kernel.addTask(pid, "worker").basic.virtual_size = 100;
  }
  sample();
  const std::vector<std::int32_t> all = {-3, 0, 7, kPid, 99, 1'000'000};
  EXPECT_EQ(walked(), all);
  EXPECT_EQ(walked(), all);
  for (int i = 0; i < 3; ++i) libtop_piterate();  // the next sample begins again at the first
  for (const std::int32_t pid : {-3, 42, 99}) kernel.tasks.erase(pid);
  kernel.addTask(8, "new");
  EXPECT_EQ(sample().virtual_total, 300U);
  EXPECT_EQ(walked(), (std::vector<std::int32_t>{0, 7, 8, 1'000'000}));
  EXPECT_FALSE(sampler.processes.find(99));
  EXPECT_TRUE(sampler.processes.isValid());
  EXPECT_EQ(process(7).seq_prev, 1U);
  EXPECT_EQ(process(8).seq_prev, 0U);
}

using ProcessUpdateDeathTest = ProcessUpdateTest;

TEST_F(ProcessUpdateDeathTest, KernelProcessTakenForTheLauncher) {
  kernel.addTask(0, "");
  ASSERT_EQ(start(), 0);
  EXPECT_DEATH(libtop_sample(true, false), "libtop_p_proc_command: libtop:2091: .*: pinfo->psamp.pid != 0");
}

}  // namespace
}  // namespace volorn
