// Processes that end, and pids that another process gets, between any two calls by which a process is read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "tests/libtop/real_sampler.h"
#include "tests/platform/linux/regions/helper_process.h"

namespace {

// What happens before the call that so many others precede.
std::function<void()> strike;
int calls_before_strike = 0;

void countCall() {
  if (strike && calls_before_strike-- == 0) std::exchange(strike, nullptr)();
}

}  // namespace

// These take the place of the C library's.
#define COUNTED(type, call_with_parameters, ...)    \
  type call_with_parameters {                       \
    countCall();                                    \
    return static_cast<type>(syscall(__VA_ARGS__)); \
  }

extern "C" {

COUNTED(int, open(const char* path, int flags, ...), SYS_openat, AT_FDCWD, path, flags, 0600)
COUNTED(int, openat(int folder, const char* path, int flags, ...), SYS_openat, folder, path, flags, 0600)
COUNTED(ssize_t, read(int file, void* buffer, size_t size), SYS_read, file, buffer, size)
COUNTED(ssize_t, readlinkat(int folder, const char* path, char* buffer, size_t size) noexcept, SYS_readlinkat,
        folder, path, buffer, size)
ssize_t pread(int file, void* buffer, size_t size, off_t offset) {
  countCall();
  const iovec place = {.iov_base = buffer, .iov_len = size};
  return syscall(SYS_preadv, file, &place, 1, static_cast<long>(offset), static_cast<long>(offset >> 32));
}
int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
  countCall();
  const int link = flags & AT_SYMLINK_NOFOLLOW ? O_NOFOLLOW : 0;
  const volorn::linux_host::FileDescriptor place(
      static_cast<int>(syscall(SYS_openat, folder, path, O_PATH | O_CLOEXEC | link)));
  return fstat(place.get(), status);
}
int ioctl(int file, unsigned long request, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  countCall();
  return static_cast<int>(syscall(SYS_ioctl, file, request, argument));
}

}  // extern "C"

namespace volorn {
namespace {

using linux_host::kPage;
using linux_host::RegionSource;

// What the kernel sums up of a process under these names.
std::uint64_t bytesOf(pid_t pid, const std::set<std::string>& names) {
  std::ifstream sums("/proc/" + std::to_string(pid) + "/smaps_rollup");
  std::uint64_t kib = 0;
  for (std::string word; sums >> word;) {
    std::uint64_t value = 0;
    if (names.contains(word) && sums >> value) kib += value;
  }
  return kib * 1024;
}

// What tells two processes of the same pid from each other.
struct Look {
  const char* name;
  uid_t user;
  std::size_t pages;
  int descriptors;
};

const Look kFirst = {"first", geteuid(), 0, 3};

// With more pages of its own than the first has of any kind.
Look secondTo(pid_t first) {
  return {"second", 65534, bytesOf(first, {"Rss:"}) / kPage + 100, 9};
}

// Rests until it is killed, looking so.
class Process {
 public:
  // `pid`: which it is to have, 0 for any. Where the kernel does not allow the choice, as to most who are not
  // root, there is no process.
  explicit Process(const Look& look, pid_t pid = 0) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return;
    clone_args arguments = {};
    arguments.exit_signal = SIGCHLD;
    if (pid != 0) {
      arguments.set_tid = reinterpret_cast<std::uintptr_t>(&pid);
      arguments.set_tid_size = 1;
    }
    pid_ = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof arguments));
    if (pid_ == 0) run(look, ready[1]);
    close(ready[1]);
    char byte = 0;
    static_cast<void>(!read(ready[0], &byte, 1));
    close(ready[0]);
  }
  ~Process() { end(); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }

  // Its zombie stays.
  void kill() const {
    siginfo_t event = {};
    ::kill(pid_, SIGKILL);
    waitid(P_PID, static_cast<id_t>(pid_), &event, WEXITED | WNOWAIT);
  }
  void end() {
    if (pid_ <= 0) return;
    kill();
    waitpid(std::exchange(pid_, 0), nullptr, 0);
  }

 private:
  [[noreturn]] static void run(const Look& look, int ready) {
    prctl(PR_SET_NAME, look.name);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char* const memory = static_cast<char*>(
        mmap(nullptr, look.pages * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (std::size_t i = 0; i < look.pages; ++i) memory[i * kPage] = 1;
    for (int i = 0; i < look.descriptors; ++i) static_cast<void>(dup(0));
    if (look.user != geteuid()) static_cast<void>(!setresuid(look.user, look.user, look.user));
    static_cast<void>(!write(ready, "", 1));
    for (;;) pause();
  }

  pid_t pid_ = 0;
};

std::size_t descriptorsOf(const std::string& process) {
  const std::filesystem::directory_iterator list("/proc/" + process + "/fd");
  return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

// The record of a process that was there for a part of the update: of the first, perhaps not all.
void expectFirst(const ProcessSample& process, std::size_t descriptors, const Look& second) {
  EXPECT_EQ(process.uid, kFirst.user);
  EXPECT_TRUE(process.ports == 0 || process.ports == descriptors) << process.ports;
  EXPECT_LT(process.private_resident, second.pages * kPage);
  EXPECT_LT(process.footprint, second.pages * kPage);
  EXPECT_EQ(process.threads, 1U);
}

// Of the second, which stays, all.
void expectSecond(const ProcessSample& process, pid_t pid, const Look& second) {
  EXPECT_EQ(process.command, second.name);
  EXPECT_EQ(process.uid, second.user);
  EXPECT_EQ(process.ports, descriptorsOf(std::to_string(pid)));
  EXPECT_EQ(process.threads, 1U);
  EXPECT_GE(process.footprint, second.pages * kPage);
  EXPECT_GE(process.private_resident, second.pages * kPage);
  EXPECT_LE(process.private_resident, bytesOf(pid, {"Private_Clean:", "Private_Dirty:"}));
}

constexpr int kMostCalls = 1'000'000;

void updateStruckAt(int call, RealSampler& real, std::string_view ending) {
  Process first(kFirst);
  std::unique_ptr<Process> second;
  const pid_t pid = first.pid();
  const std::size_t descriptors = descriptorsOf(std::to_string(pid));
  const Look look = secondTo(pid);
  sampler.processes.clear();
  calls_before_strike = call;
  strike = [&] {
    ending == "zombie" ? first.kill() : first.end();
    if (ending == "replaced") second = std::make_unique<Process>(look, pid);
  };
  const int result = real.update(pid);
  strike = nullptr;
  const ProcessSample* process = RealSampler::process(pid);
  EXPECT_EQ(process != nullptr, result == kProcessUpdated);
  if (process && process->command == kFirst.name) {
    expectFirst(*process, descriptors, look);
  } else if (process) {
    EXPECT_EQ(ending, "replaced");
    expectSecond(*process, pid, look);
  }
}

class DyingProcessTest : public testing::TestWithParam<const char*> {};

TEST_P(DyingProcessTest, IsSkippedOrKeptAndNeverMixedWithAnother) {
  const std::size_t before = descriptorsOf("self");
  for (const RegionSource source : {RegionSource::page_map, RegionSource::smaps}) {
    RealSampler real(source);
    updateStruckAt(kMostCalls, real, GetParam());
    const int calls = kMostCalls - calls_before_strike;
    EXPECT_GT(calls, 15);
    for (int call = 0; call < calls; ++call) {
      const bool is_one_of_many = call > 20 && call < calls - 10;  // the same for every mapping
      if (is_one_of_many && call % 8 != 0) continue;
      updateStruckAt(call, real, GetParam());
      ASSERT_FALSE(HasFailure()) << "before call " << call;
    }
  }
  EXPECT_EQ(descriptorsOf("self"), before);
}

INSTANTIATE_TEST_SUITE_P(Endings, DyingProcessTest, testing::Values("zombie", "gone", "replaced"));

}  // namespace
}  // namespace volorn
