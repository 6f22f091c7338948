// The sampler's figures of this machine, beside those that its kernel tells otherwise.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/failing_allocation.h"
#include "tests/libtop/real_sampler.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn {
namespace {

using linux_host::RegionSource;

const std::uint64_t kPage = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

constexpr RegionSource kSources[] = {RegionSource::best, RegionSource::page_map, RegionSource::smaps};

// What moves may move between two looks: only what never agrees is wrong.
constexpr int kAttempts = 40;

// A large mapping that is mostly holes, with zero pages among those that were written.
constexpr const char* kHoles =
    "import mmap, signal; m = mmap.mmap(-1, 1 << 26, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)\n"
    "for i in range(0, 1 << 26, 1 << 20): m[i] = 1; m[i + 4096]\n"
    "signal.pause()";

// Processes that come to rest: many of another program, and some of this one.
class Crowd {
 public:
  explicit Crowd(int count) {
    for (int i = 0; i < count; ++i) add([] { execl("/bin/sleep", "sleep", "infinity", nullptr); });
    add([] { execl("/usr/bin/python3", "python3", "-c", kHoles, nullptr); });
    add([] { raise(SIGSTOP); });
    add([] { _exit(0); });
    add([] {
      std::thread(useProcessor).join();
      std::thread([] { useProcessor(), pause(); }).detach();
      useProcessor();
    });
    add([] {  // it outlives its first thread
      std::thread([] { pause(); }).detach();
      syscall(SYS_exit, 0);
    });
  }
  ~Crowd() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  const std::vector<pid_t>& pids() const { return pids_; }

 private:
  static void useProcessor() {
    for (const auto end = std::clock() + CLOCKS_PER_SEC / 20; std::clock() < end;) {
    }
  }

  void add(void (*act)()) {
    const pid_t pid = fork();
    if (pid != 0) return pids_.push_back(pid);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    act();
    for (;;) pause();
  }

  std::vector<pid_t> pids_;
};

std::string textOf(const std::filesystem::path& path) {
  std::ifstream stream(path);
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

// As far as it can be read: processes end meanwhile.
std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error); entry != end(entry);
       entry.increment(error)) {
    entries.push_back(entry->path());
  }
  return entries;
}

// The fields of a `stat`, the state being the first.
std::vector<std::string> statOf(const std::filesystem::path& folder) {
  const std::string text = textOf(folder / "stat");
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  return {std::istream_iterator<std::string>(fields), {}};
}

// What is compared of a process, each figure behind its name.
std::string describe(char state, std::initializer_list<std::uint64_t> figures) {
  std::istringstream names(
      "parent group owner faults pageins threads virtual resident footprint ports switches microseconds "
      "private");
  std::string text = {state};
  for (std::string name; const std::uint64_t figure : figures) {
    names >> name;
    text += ' ' + name + ' ' + std::to_string(figure);
  }
  return text;
}

// Its memory changes as this one's does.
bool isRelative(const std::filesystem::path& process) {
  return textOf(process / "comm") == textOf("/proc/self/comm");
}

// As /proc tells it. Empty where there is no such process, or not all of it may be read.
std::string toldOf(const std::filesystem::path& process) {
  const std::vector<std::string> stat = statOf(process);
  std::filesystem::path memory = process;  // of a thread that lives: the first may have ended
  std::uint64_t switches = 0;
  constexpr std::string_view kStates = "RDSTZ";
  std::size_t state = kStates.npos;  // of the threads the first
  for (const auto& thread : entriesOf(process / "task")) {
    const std::vector<std::string> own = statOf(thread);
    if (own.empty()) return "";
    state = std::min(state, kStates.find(own[0] == "I" ? "S" : own[0] == "t" ? "T" : own[0]));
    if (own[0] != "Z") memory = thread;
    switches +=
        sumBehind(textOf(thread / "status"), {"voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"});
  }
  const std::string status = textOf(memory / "status");
  if (stat.empty() || state == kStates.npos || status.empty()) return "";
  if (access((memory / "fd").c_str(), R_OK) != 0) return "";
  std::uint64_t owner = 0;
  std::istringstream(status.substr(status.find("Uid:") + 4)) >> owner >> owner;  // the effective one
  std::uint64_t pages = 0;
  std::uint64_t resident_pages = 0;
  std::istringstream(textOf(memory / "statm")) >> pages >> resident_pages;
  // Counted as proc(5) does.
  const auto field = [&](std::size_t number) { return std::stoull(stat[number - 3]); };
  const std::uint64_t ticks = field(14) + field(15);
  const std::uint64_t bytes = isRelative(process) ? 0 : privateBytesIn(textOf(process / "smaps_rollup"));
  return describe(
      kStates[state],
      {field(4), field(5), owner, field(10) + field(12), field(12), field(20), pages * kPage,
       resident_pages * kPage, sumBehind(status, {"RssAnon:"}) * 1024, entriesOf(memory / "fd").size(),
       switches, ticks * 1'000'000 / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)), bytes});
}

std::string sampledOf(std::int32_t pid) {
  const ProcessSample* p = RealSampler::process(pid);
  if (!p) return "no record";
  const auto microseconds =
      static_cast<std::uint64_t>(p->total_time.seconds * 1'000'000 + p->total_time.microseconds);
  EXPECT_EQ(p->power[0] + p->power[1], microseconds * 1000);
  return describe("?RDSSTZ?" [p->state], {
    p->ppid, p->pgid, p->uid, p->faults.value, p->pageins.value, p->threads, p->virtual_size, p->resident,
        p->footprint, p->ports, p->csw.value, microseconds,
        isRelative("/proc/" + std::to_string(pid)) ? 0 : p->private_resident
  });
}

// Of every process but this one and its parent.
std::map<std::int32_t, std::string> toldOfAll() {
  std::map<std::int32_t, std::string> texts;
  for (const auto& process : entriesOf("/proc")) {
    const std::int32_t pid = std::atoi(process.filename().c_str());
    if (pid == 0 || pid == getpid() || pid == getppid()) continue;
    texts[pid] = toldOf(process);
  }
  return texts;
}

// Of all processes that come to rest, of which the crowd must be. Nothing when all is well.
std::string faultsOfAll(RegionSource source, const Crowd& crowd) {
  std::map<std::int32_t, std::string> before = toldOfAll();
  std::map<std::int32_t, std::string> faults;  // of those that have not agreed yet
  for (const auto& [pid, text] : before) faults[pid] = "";
  const auto isOpen = [&](pid_t pid) { return faults.contains(pid); };
  const auto hasFault = [](const auto& fault) { return !fault.second.empty(); };
  const auto mustGoOn = [&] {
    return std::ranges::any_of(faults, hasFault) || std::ranges::any_of(crowd.pids(), isOpen);
  };
  for (int attempt = 0; attempt < kAttempts && mustGoOn(); ++attempt) {
    RealSampler real(source);  // whose first sample it is: later ones keep what they saw of shared objects
    real.sample(true);
    std::map<std::int32_t, std::string> after = toldOfAll();
    for (auto& [pid, text] : before) {
      const std::string& told = after[pid];
      if (told != text || !faults.contains(pid)) continue;
      const std::string sampled = sampledOf(pid);
      faults[pid] = std::to_string(pid) + " is " + sampled + "\n, not " + told + '\n';
      if (told.empty() || sampled == told) faults.erase(pid);
    }
    before = std::move(after);
  }
  std::string all = std::ranges::none_of(crowd.pids(), isOpen) ? "" : "the crowd does not rest\n";
  for (const auto& [pid, text] : faults) all += text;
  return all;
}

// From now on these calls of ioctl fail in this process: all of them, or the page scan alone.
bool refuseIoctl(int error, bool scans_only) {
  constexpr unsigned kPageMapScan = 0xC0606610;
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | (scans_only ? BPF_JEQ : BPF_JGE) | BPF_K, scans_only ? kPageMapScan : 0, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter = {.len = std::size(program), .filter = program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST(RealMachineTest, FiguresOfEveryProcessAtRestAreThoseOfProc) {
  const Crowd crowd(60);
  for (const RegionSource source : kSources) EXPECT_EQ(faultsOfAll(source, crowd), "");
  const struct {
    int error;
    bool scans_only;
  } filters[] = {{EPERM, false}, {EINVAL, false}, {ENOSYS, false}, {EPERM, true}};
  for (const auto& [error, scans_only] : filters) {
    const pid_t filtered = fork();
    if (filtered == 0) {
      const bool is_filtered =
          refuseIoctl(error, scans_only) && ioctl(-1, scans_only ? 0xC0606610 : 0) < 0 && errno == error;
      const std::string faults =
          is_filtered ? faultsOfAll(RegionSource::best, crowd) : "there is no filter\n";
      std::cerr << faults;
      _exit(faults.empty() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(filtered, &status, 0), filtered);
    EXPECT_EQ(status, 0) << std::strerror(error) << (scans_only ? " of scans" : "");
  }
}

// Two processes in a tree, one of two threads, so that what is read stays the same.
void writeTwoProcesses(const linux_host::FixtureTree& tree) {
  for (const int pid : {42, 43}) {
    const std::string folder = std::to_string(pid) + '/';
    const int threads = pid - 41;
    const linux_host::ProcessFixture process = {
        .threads = threads, .user_ticks = 7 * threads, .system_ticks = 8 * threads};
    process.write(tree, pid);
    if (pid == 42) continue;
    const linux_host::ProcessFixture half = {.user_ticks = 7, .system_ticks = 8};
    for (const int thread : {43, 44}) half.write(tree, thread, "43/task/");
    for (const char* file : {"maps", "pagemap"}) tree.write(folder + file, "");
  }
  linux_host::writeSystem(tree);
}

TEST(RealMachineTest, ASampleOutOfMemoryAtAnyPointIsMadeGoodByTheNext) {
  const linux_host::FixtureTree tree;
  writeTwoProcesses(tree);
  std::string expected[2];
  for (std::size_t passed = 0;; ++passed) {
    ASSERT_LT(passed, 5000U);
    RealSampler real(RegionSource::smaps, tree.root());
    failAllocationAfter(passed);
    int result = 1;
    EXPECT_NO_THROW(result = libtop_sample(true, true)) << passed;
    const bool has_failed = allocationHasFailed();
    EXPECT_TRUE(result == 0 || result == -1) << passed;
    if (!has_failed) {
      EXPECT_GT(passed, 50U);
      break;
    }
    real.sample(true, true);
    for (const int i : {0, 1}) {
      if (passed == 0) expected[i] = sampledOf(42 + i);
      EXPECT_EQ(sampledOf(42 + i), expected[i]) << passed;
    }
  }
  EXPECT_EQ(
      expected[0],
      "S parent 1 group 2 owner 8 faults 13 pageins 3 threads 1 virtual 16384 resident 8192 footprint 4096 "
      "ports 1 switches 6 microseconds 150000 private 4096");
  EXPECT_EQ(
      expected[1],
      "S parent 1 group 2 owner 8 faults 13 pageins 3 threads 2 virtual 16384 resident 8192 footprint 4096 "
      "ports 1 switches 12 microseconds 300000 private 4096");
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

}  // namespace
}  // namespace volorn
