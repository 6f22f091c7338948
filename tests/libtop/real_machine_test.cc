// The sampler's figures of this machine, beside those that its kernel and ps(1) tell otherwise.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/libtop/real_sampler.h"
#include "tests/platform/linux/regions/helper_process.h"

namespace volorn {
namespace {

using linux_host::Helper;
using linux_host::kPage;
using linux_host::RegionSource;

constexpr RegionSource kSources[] = {RegionSource::best, RegionSource::page_map, RegionSource::smaps};

// What moves may move between two looks: only what never agrees is wrong.
constexpr int kAttempts = 40;

// Processes at rest, and no relatives of this one: of those the memory changes as this one's does.
class Crowd {
 public:
  explicit Crowd(std::size_t count) : pids_(count) {
    int never[2];
    EXPECT_EQ(pipe2(never, O_CLOEXEC), 0);
    const linux_host::FileDescriptor input(never[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO);
    const char* const arguments[] = {"cat", nullptr};
    for (pid_t& pid : pids_) {
      EXPECT_EQ(posix_spawn(&pid, "/bin/cat", &actions, nullptr, const_cast<char**>(arguments), environ), 0);
    }
    posix_spawn_file_actions_destroy(&actions);
    rest_ = linux_host::FileDescriptor(never[1]);
  }
  ~Crowd() {
    rest_ = {};
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

 private:
  std::vector<pid_t> pids_;
  linux_host::FileDescriptor rest_;
};

std::string textOf(std::int32_t pid, const char* file) {
  std::ifstream stream("/proc/" + std::to_string(pid) + '/' + file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// The numbers behind these words, summed up.
std::uint64_t sumBehind(const std::string& text, const std::set<std::string>& words) {
  std::istringstream fields(text);
  std::uint64_t sum = 0;
  for (std::string word, number; fields >> word;) {
    if (words.contains(word) && fields >> number) sum += std::stoull(number);
  }
  return sum;
}

std::uint64_t privateBytesIn(const std::string& sums) {
  return sumBehind(sums, {"Private_Clean:", "Private_Dirty:"}) * 1024;
}

// The sums over the mappings of every process but this one that may be read and has some.
std::map<std::int32_t, std::string> rollups() {
  std::map<std::int32_t, std::string> texts;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::int32_t pid = std::atoi(entry.path().filename().c_str());
    if (pid == 0 || pid == getpid()) continue;
    std::string text = textOf(pid, "smaps_rollup");
    if (!text.empty()) texts[pid] = std::move(text);
  }
  return texts;
}

// What is wrong with the latest sample of a process; nothing where it did not rest.
std::string faultOf(std::int32_t pid, const std::string& before, const std::string& after) {
  const ProcessSample* process = RealSampler::process(pid);
  if (!process || before != after) return "";
  const std::uint64_t sampled = process->private_resident + process->shlib_private;
  const std::uint64_t told = privateBytesIn(after);
  return sampled == told ? "" : std::to_string(sampled) + " bytes\n" + after;
}

TEST(RealMachineTest, PrivateBytesOfEveryProcessAtRestAreThoseThatTheKernelSums) {
  constexpr std::size_t kCrowd = 200;
  const Crowd crowd(kCrowd);
  for (const RegionSource source : kSources) {
    std::map<std::int32_t, std::string> before = rollups();
    std::map<std::int32_t, std::string> faults;  // of those that have not agreed yet
    for (const auto& [pid, text] : before) faults[pid] = "";
    const std::size_t compared = faults.size();
    // A process may have been busy, even when it came back to the same sums.
    for (int attempt = 0; attempt < kAttempts && !faults.empty(); ++attempt) {
      RealSampler real(source);  // whose first sample it is: later ones keep what they saw of shared objects
      real.sample(true);
      std::map<std::int32_t, std::string> after = rollups();
      for (auto fault = faults.begin(); fault != faults.end();) {
        const auto& [pid, text] = *fault;
        fault->second = faultOf(pid, before[pid], after[pid]);
        const bool is_settled = after[pid].empty() || (text.empty() && before[pid] == after[pid]);
        fault = is_settled ? faults.erase(fault) : std::next(fault);
      }
      before = std::move(after);
    }
    for (const auto& [pid, text] : faults) EXPECT_EQ(text, "") << textOf(pid, "cmdline");
    EXPECT_GE(compared - faults.size(), kCrowd) << "the crowd rests";
  }
}

struct PsLine {
  std::int32_t pid = 0;
  std::uint32_t parent = 0;
  std::uint32_t owner = 0;
  std::uint64_t virtual_kib = 0;
  std::uint64_t resident_kib = 0;
  std::uint32_t threads = 0;
  std::int64_t cpu_seconds = 0;
  char state = 0;

  bool operator==(const PsLine&) const = default;
};

std::map<std::int32_t, PsLine> ps() {
  std::map<std::int32_t, PsLine> lines;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(
      popen("ps -e -o pid=,ppid=,euid=,vsz=,rss=,nlwp=,cputimes=,state=", "r"), pclose);
  char text[256];
  while (std::fgets(text, sizeof text, output.get())) {
    std::istringstream fields(text);
    PsLine line;
    fields >> line.pid >> line.parent >> line.owner >> line.virtual_kib >> line.resident_kib >>
        line.threads >> line.cpu_seconds >> line.state;
    if (fields) lines[line.pid] = line;
  }
  return lines;
}

// The state codes that a letter may stand for.
std::set<std::uint32_t> codesOf(char letter) {
  switch (letter) {
    case 'R':
      return {kProcessRunning};
    case 'D':
      return {kProcessUninterruptible};
    case 'S':
    case 'I':
      return {kProcessSleeping, kProcessIdle};
    case 'T':
    case 't':
      return {kProcessStopped};
    case 'Z':
      return {kProcessHalted};
    default:
      return {};
  }
}

// The figures in which a process's latest sample differs from what ps tells.
std::string differences(const ProcessSample& process, const PsLine& line) {
  std::string differing;
  const auto compare = [&](const char* name, std::uint64_t sampled, std::uint64_t told) {
    if (sampled != told)
      differing += name + (' ' + std::to_string(sampled)) + " not " + std::to_string(told) + "; ";
  };
  compare("parent", process.ppid, line.parent);
  compare("owner", process.uid, line.owner);
  compare("virtual bytes", process.virtual_size, line.virtual_kib * 1024);
  compare("resident bytes", process.resident, line.resident_kib * 1024);
  compare("threads", process.threads, line.threads);
  compare("seconds", static_cast<std::uint64_t>(process.total_time.seconds),
          static_cast<std::uint64_t>(line.cpu_seconds));
  if (line.threads == 1 && !codesOf(line.state).contains(process.state)) {
    differing += "state " + std::to_string(process.state) + " not " + line.state;
  }
  return differing;
}

TEST(RealMachineTest, FiguresAreThoseOfPs) {
  const Crowd crowd(50);
  const Helper stopped([] { return true; });
  siginfo_t event = {};
  kill(std::stoi(stopped.pid()), SIGSTOP);
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(std::stoi(stopped.pid())), &event, WSTOPPED), 0);
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(dead), &event, WEXITED | WNOWAIT), 0);

  std::map<std::int32_t, std::string> wrong;  // of those that have not agreed yet
  std::set<std::int32_t> agreed;
  RealSampler real;
  std::map<std::int32_t, PsLine> before = ps();
  // A kernel thread may wake for a moment between two equal lines.
  for (int attempt = 0; attempt < kAttempts && (attempt == 0 || !wrong.empty()); ++attempt) {
    real.sample(false);
    std::map<std::int32_t, PsLine> after = ps();
    for (const auto& [pid, line] : before) {
      const auto later = after.find(pid);
      if (pid == getpid() || agreed.contains(pid)) continue;
      if (later == after.end()) {
        wrong.erase(pid);
      } else if (later->second == line) {
        const ProcessSample* process = RealSampler::process(pid);
        wrong[pid] = process ? differences(*process, line) : "no record";
        if (wrong[pid].empty()) {
          agreed.insert(pid);
          wrong.erase(pid);
        }
      }
    }
    before = std::move(after);
  }
  for (const auto& [pid, text] : wrong) ADD_FAILURE() << "pid " << pid << ": " << text;
  EXPECT_GT(agreed.size(), 50U);
  EXPECT_EQ(RealSampler::process(std::stoi(stopped.pid()))->state, kProcessStopped);
  EXPECT_EQ(RealSampler::process(dead)->state, kProcessHalted);
  kill(std::stoi(stopped.pid()), SIGCONT);
  waitpid(dead, nullptr, 0);
}

TEST(RealMachineTest, ALibraryMoreIsACodeRegionMore) {
  RealSampler real;
  const SystemSample before = real.sample(false, true);
  void* const library = dlopen("libresolv.so.2", RTLD_LAZY);
  ASSERT_TRUE(library) << dlerror();
  const SystemSample& after = real.sample(false, true);
  EXPECT_GT(before.shlib_code_regions, 0U);
  EXPECT_EQ(after.shlib_code_regions, before.shlib_code_regions + 1);
  EXPECT_GT(after.shlib_code, before.shlib_code);
  EXPECT_GT(after.shlib_virtual, before.shlib_virtual);
  dlclose(library);
}

// What this process has read so far, in calls and in bytes.
struct Reads {
  std::uint64_t calls = sumBehind(textOf(getpid(), "io"), {"syscr:"});
  std::uint64_t bytes = sumBehind(textOf(getpid(), "io"), {"rchar:"});
};

// A page map of the whole would be two gigabytes.
TEST(RealMachineTest, AHugeReservationIsReadAsFarAsThereArePages) {
  constexpr std::uint64_t kReservedBytes = std::uint64_t{1} << 40;
  constexpr std::size_t kTouchedPages = 8;
  // Of memory that counts page by page as it is touched, however strict the kernel is in lending it.
  const Helper helper([] {
    const linux_host::FileDescriptor memory(memfd_create("reserved", MFD_CLOEXEC));
    if (ftruncate(memory.get(), kReservedBytes) != 0) return false;
    char* const reserved = static_cast<char*>(
        mmap(nullptr, kReservedBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0));
    if (reserved == MAP_FAILED) return false;
    for (std::size_t i = 0; i < kTouchedPages; ++i) reserved[kReservedBytes / kTouchedPages * i] = 1;
    return true;
  });
  ASSERT_TRUE(helper.isSetUp());
  const std::int32_t pid = std::stoi(helper.pid());
  for (const RegionSource source : kSources) {
    RealSampler real(source);
    const std::uint64_t least = privateBytesIn(textOf(pid, "smaps_rollup"));
    const Reads before;
    ASSERT_EQ(real.update(pid), kProcessUpdated);
    const Reads after;
    const ProcessSample& process = *RealSampler::process(pid);
    EXPECT_GE(process.virtual_size, kReservedBytes);
    const std::uint64_t sampled = process.private_resident + process.shlib_private;
    EXPECT_GE(sampled, least);
    // What this process writes ceases to be shared with its relative.
    EXPECT_LE(sampled, privateBytesIn(textOf(pid, "smaps_rollup")));
    EXPECT_LT(after.calls - before.calls, 1000U);
    EXPECT_LT(after.bytes - before.bytes, 1U << 20);
  }
}

// The processor time in ticks, of the process or of a thread.
std::int64_t ticksIn(const std::string& stat) {
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string passed;
  for (int i = 2; i < 13; ++i) fields >> passed;
  std::int64_t user = 0;
  std::int64_t system = 0;
  fields >> user >> system;
  return user + system;
}

std::int64_t ticksOf(const ProcessSample& process) {
  const std::int64_t per_second = sysconf(_SC_CLK_TCK);
  return process.total_time.seconds * per_second + process.total_time.microseconds * per_second / 1'000'000;
}

// What /proc tells of a process of several threads.
struct Threads {
  explicit Threads(std::int32_t pid) : ticks(ticksIn(textOf(pid, "stat"))) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
      const std::string file = "task/" + entry.path().filename().string() + "/status";
      switches +=
          sumBehind(textOf(pid, file.c_str()), {"voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"});
      ++count;
    }
  }
  std::int64_t ticks = 0;
  std::uint64_t switches = 0;
  std::size_t count = 0;
};

// The state letters of a process's threads, in alphabetical order.
std::string statesOf(std::int32_t pid) {
  std::string letters;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string stat = textOf(pid, ("task/" + entry.path().filename().string() + "/stat").c_str());
    if (const std::size_t name_end = stat.rfind(')'); name_end != stat.npos) letters += stat.at(name_end + 2);
  }
  std::ranges::sort(letters);
  return letters;
}

void waitForStates(std::int32_t pid, std::string_view letters) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
  while (statesOf(pid) != letters && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  ASSERT_EQ(statesOf(pid), letters);
}

void burnCpu(std::chrono::milliseconds time) {
  timespec used = {};
  do {
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  } while (std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec) < time);
}

// A process of which one thread has ended, one waits, one runs until it is told to end, and the first waits,
// too.
class ThreadedProcess {
 public:
  ThreadedProcess() {
    EXPECT_EQ(pipe(told_), 0);
    EXPECT_EQ(pipe(answers_), 0);
    pid = fork();
    if (pid == 0) run();
    waitForAnswer();
  }
  ~ThreadedProcess() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (const int fd : {told_[0], told_[1], answers_[0], answers_[1]}) close(fd);
  }
  void endRunningThread() {
    EXPECT_EQ(write(told_[1], "", 1), 1);
    waitForAnswer();
  }
  pid_t pid = 0;

 private:
  [[noreturn]] void run() {
    std::atomic<bool> ends = false;
    char byte = 0;
    std::thread(burnCpu, std::chrono::milliseconds(100)).join();
    std::thread waiting([] { pause(); });
    std::thread running([&] {
      burnCpu(std::chrono::milliseconds(100));
      static_cast<void>(!write(answers_[1], "", 1));
      while (!ends) continue;
    });
    static_cast<void>(!read(told_[0], &byte, 1));
    ends = true;
    running.join();
    static_cast<void>(!write(answers_[1], "", 1));
    for (;;) pause();
  }
  void waitForAnswer() {
    char byte = 0;
    EXPECT_EQ(read(answers_[0], &byte, 1), 1);
  }
  int told_[2];
  int answers_[2];
};

TEST(RealMachineTest, AProcessOfThreadsHasTheirTimeOnceAndAllTheirSwitches) {
  ThreadedProcess threaded;
  waitForStates(threaded.pid, "RSS");
  RealSampler real;
  const Threads before(threaded.pid);
  real.sample(false);
  const Threads after(threaded.pid);
  ASSERT_EQ(after.count, 3U);
  const ProcessSample& process = *RealSampler::process(threaded.pid);
  EXPECT_EQ(process.threads, 3U);
  EXPECT_EQ(process.running_threads, 1U);
  EXPECT_EQ(process.state, kProcessRunning);
  EXPECT_GE(process.csw.value, before.switches);
  EXPECT_LE(process.csw.value, after.switches);
  EXPECT_GE(before.ticks, 18);
  EXPECT_GE(ticksOf(process), before.ticks);
  EXPECT_LE(ticksOf(process), after.ticks + 2) << "parts of ticks, of two threads";

  threaded.endRunningThread();
  waitForStates(threaded.pid, "SS");
  real.sample(false);
  EXPECT_EQ(process.threads, 2U);
  EXPECT_EQ(process.threads_prev, 3U);
  EXPECT_EQ(ticksOf(process), Threads(threaded.pid).ticks);
}

}  // namespace
}  // namespace volorn
