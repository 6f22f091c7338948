#include <cerrno>
#include <cstring>
#include <string>

#include "tests/failing_allocation.h"
#include "tests/libtop/sampler_fixture.h"
#include "tests/libtop/tree_rules.h"

namespace volorn {
namespace {

constexpr std::int32_t kPid = 42;
constexpr std::int32_t kTwin = 43;

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

TEST_F(ProcessUpdateTest, StateAndTimeOfTheThreads) {
  const TimeStamp nearly = {.seconds = 2, .microseconds = 999'999};
  const auto waiting = RunState::waiting;
  struct Case {
    std::vector<ThreadBasicInfo> threads;
    std::uint32_t state;  // the smallest of the threads
    std::uint32_t running = 0;
    std::uint64_t total_microseconds = 1'300'000;
  };
  const Case kCases[] = {
      {{}, 7},
      {{thread(RunState::running)}, 1, 1},
      {{thread(RunState::uninterruptible)}, 2},
      {{thread(waiting, 0)}, 3},
      {{thread(waiting, 1)}, 4},
      {{thread(RunState::stopped)}, 5},
      {{thread(RunState::halted)}, 6},
      {{thread(RunState{9})}, 7},
      {{thread(RunState::halted), thread(waiting, 7), thread(RunState::stopped)}, 4},
      {{thread(RunState::running), thread(waiting), thread(RunState::running)}, 1, 2},
      {{thread(waiting, 0, {.seconds = 0, .microseconds = 700'000})}, 3, 0, 2'000'000},
      // An idle thread counts but for its time.
      {{thread(RunState::running, 0, nearly, nearly),
        thread(RunState::running, 0, nearly, nearly, kThreadIdle)},
       1,
       2,
       7'299'998},
  };
  task.basic.user_time = {.seconds = 0, .microseconds = 600'000};
  task.basic.system_time = {.seconds = 0, .microseconds = 700'000};
  for (const Case& c : kCases) {
    task.threads = c.threads;
    const SystemSample& tsamp = sample();
    const ProcessSample& p = process(kPid);
    EXPECT_EQ(flat(p.state, p.threads, p.running_threads, p.total_time),
              (Values{c.state, c.threads.size(), c.running, c.total_microseconds}));
    EXPECT_EQ(tsamp.state_counts[c.state], 1U);
    EXPECT_EQ(tsamp.threads, c.threads.size());
  }
}

// All figures that a task brings in one reading are `n` or made from it.
void setFigures(fake::FakeTask& task, std::uint32_t n) {
  const auto raw = static_cast<std::int32_t>(n);
  task.process.uid = n + 1;
  task.process.ppid = n + 2;
  task.process.pgid = n + 3;
  task.process.flags = n + 4;
  task.process.started = {.seconds = n, .microseconds = 5};
  task.basic.user_time = {.seconds = n, .microseconds = 0};
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

// What an update reads by one call each: threads, ports, events, kernel memory, power, footprint, and the
// rest.
Values current(const ProcessSample& p) {
  return flat(p.threads, p.running_threads, p.ports, p.events, p.faults.value, p.pageins.value,
              p.cow_faults.value, p.messages_sent.value, p.messages_received.value, p.syscalls_mach.value,
              p.syscalls_bsd.value, p.csw.value, p.kernel_memory, p.power, p.footprint, p.purgeable_resident,
              p.total_time, p.resident, p.virtual_size, p.seq);
}

Values previous(const ProcessSample& p) {
  return flat(p.threads_prev, p.running_threads_prev, p.ports_prev, p.events_prev, p.faults.value_prev,
              p.pageins.value_prev, p.cow_faults.value_prev, p.messages_sent.value_prev,
              p.messages_received.value_prev, p.syscalls_mach.value_prev, p.syscalls_bsd.value_prev,
              p.csw.value_prev, p.kernel_memory_prev, p.power_prev, p.footprint_prev,
              p.purgeable_resident_prev, p.total_time_prev, p.resident_prev, p.virtual_size_prev, p.seq_prev);
}

Values beginning(const ProcessSample& p) {
  return flat(p.events_begin, p.power_begin, p.total_time_begin);
}

TEST_F(ProcessUpdateTest, ValuesBeginningsAndPreviousValuesOverThreeSamples) {
  constexpr std::uint64_t kNegative = 0 - 5ULL;
  setFigures(task, 1001);
  task.events.counters[kTaskEventContextSwitches] = -5;  // unsigned, and about to wrap
  sample();
  const ProcessSample first = process(kPid);
  EXPECT_EQ(flat(first.uid, first.ppid, first.pgid, info(kPid).proc_flags, first.started, first.cpu_type),
            (Values{1002, 1003, 1004, 1005, 1001'000'005, 0x1000007}));
  EXPECT_EQ(first.command, "worker");
  const Values of_first = {1,          1,         1,    1001, 1002,         1003,  1004,   1005, 1006,
                           1007,       kNegative, 1001, 1002, 1003,         1004,  1005,   1006, 1007,
                           4294967291, 1001,      1002, 1003, 1004,         1001,  1002,   1003, 1004,
                           1005,       1006,      6006, 2002, 1001'000'000, 10010, 100100, 1};
  EXPECT_EQ(current(first), of_first);
  EXPECT_EQ(beginning(first), (Values{1001, 1002, 1003, 1004, 1005, 1006, 1007, kNegative, 1001, 1002, 1003,
                                      1004, 1005, 1006, 1001'000'000}));
  Values before(of_first.size());  // nothing, but where everything begins
  for (const auto& [begin, end] : {std::pair(3, 11), {23, 29}, {31, 32}}) {
    std::copy(of_first.begin() + begin, of_first.begin() + end, before.begin() + begin);
  }
  EXPECT_EQ(previous(first), before);
  const std::array<std::uint32_t, 3> queue = {1001, 1002, 1003};
  EXPECT_EQ(first.workqueue, queue);

  setFigures(task, 2003);
  sample();
  const ProcessSample second = process(kPid);
  EXPECT_EQ(previous(second), of_first);
  EXPECT_EQ(flat(second.faults.value, second.csw.value), (Values{2003, 4294969306}));
  for (std::size_t i = 2; i < of_first.size(); ++i) EXPECT_NE(current(second)[i], of_first[i]) << i;
  EXPECT_EQ(second.workqueue_prev, queue);
  EXPECT_EQ(beginning(second), beginning(first));

  fail("proc_pidinfo 12", kPid);  // a work queue that cannot be read is empty
  sample();
  EXPECT_EQ(previous(process(kPid)), current(second));
  EXPECT_EQ(beginning(process(kPid)), beginning(first));
  EXPECT_EQ(process(kPid).workqueue, (std::array<std::uint32_t, 3>{}));
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

// What becomes of a known process when one call about it fails: it is left out, or but the figures of that
// call are its twin's, of which none fails.
TEST_F(ProcessUpdateTest, CallsThatFail) {
  struct Case {
    const char* call;
    std::ptrdiff_t begin = 0;  // which of its figures are not read anew; none: it is left out
    std::ptrdiff_t end = 0;
    std::string message = "";
  };
  const std::string no_such = std::strerror(ESRCH);
  const Case kCases[] = {
      {"pid_for_task"},
      {"sysctl 1.14.1", 0, 0, "kinfo_for_pid(): Error in sysctl(): " + no_such},
      {"sysctl 1.49", 0, 0, "libtop_p_proc_command(): Error in sysctl(): " + no_such},
      {"sysctl sysctl.proc_cputype"},
      {"task_info 18"},
      {"task_threads", 0, 2},
      {"mach_port_names", 2, 3},
      {"task_info 2", 3, 19},
      {"task_info 7", 19, 23},
      {"task_info 21", 23, 29},
      {"task_info 23", 29, 31},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.call);
    kernel.failures.clear();
    messages.clear();
    ASSERT_EQ(start(), 0);
    const auto next = [this](std::uint32_t figures) {
      task.setCommand("");  // so that the arguments are read too
      task.threads.push_back(thread(RunState::running));
      setFigures(task, figures);
      kernel.tasks.at(kTwin) = task;
      kernel.tasks.at(kTwin).pid = kTwin;
    };
    kernel.addTask(kTwin, "");
    for (const std::uint32_t figures : {1001U, 1502U}) {
      next(figures);
      sample();
    }
    const ProcessSample before = process(kPid);
    next(2003);
    fail(c.call, kPid, ESRCH);
    const SystemSample& tsamp = sample();
    EXPECT_EQ(messages, c.message.empty() ? std::vector<std::string>{} : std::vector{c.message});
    const bool is_kept = c.end > 0;
    EXPECT_EQ(tsamp.state_counts[1] + tsamp.state_counts[7], is_kept ? 2U : 1U);
    EXPECT_EQ(walked(), is_kept ? (std::vector{kPid, kTwin}) : std::vector{kTwin});
    if (!is_kept) continue;
    Values expected = current(process(kTwin));
    Values expected_before = previous(process(kTwin));
    const Values old = current(before);
    std::copy(old.begin() + c.begin, old.begin() + c.end, expected.begin() + c.begin);
    if (c.begin == 0) {
      // Of the threads alone nothing is moved on before the call, and their times are missing.
      const Values older = previous(before);
      std::copy(older.begin(), older.begin() + c.end, expected_before.begin());
      expected[31] = 2003'000'000;
    }
    EXPECT_EQ(current(process(kPid)), expected);
    EXPECT_EQ(previous(process(kPid)), expected_before);
  }
  EXPECT_EQ(kernel.lentPorts(), 0U);
  EXPECT_EQ(kernel.lentArrays(), 0U);
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
  EXPECT_TRUE(isRedBlackTree(sampler.processes));
  EXPECT_EQ(process(7).seq_prev, 1U);
  EXPECT_EQ(process(8).seq_prev, 0U);
}

}  // namespace
}  // namespace volorn
