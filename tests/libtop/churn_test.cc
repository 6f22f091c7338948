// Samples in a row while processes are born, rename themselves, execute programs and die.
// VOLORN_CHURN_SAMPLES says how many; 10000 take some minutes.
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>

#include "tests/libtop/real_sampler.h"

// The sanitizers' allocator has it.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace volorn {
namespace {

std::size_t allocatedBytes() {
  if (__sanitizer_get_current_allocated_bytes) return __sanitizer_get_current_allocated_bytes();
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator list("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

// A process that makes others without end. All of them end with this object.
class Churn {
 public:
  Churn() : pid_(fork()) {
    setpgid(pid_, pid_);  // both do it, for neither can wait for the other
    if (pid_ == 0) run();
  }
  ~Churn() {
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Churn(const Churn&) = delete;
  Churn& operator=(const Churn&) = delete;

 private:
  static constexpr std::size_t kAtOnce = 8;

  [[noreturn]] static void run() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // should the test be killed
    std::minstd_rand chance(1);
    for (std::size_t living = 0;; ++living) {
      if (living >= kAtOnce) {
        wait(nullptr);
        --living;
      }
      const auto kind = chance();
      const pid_t child = fork();
      if (child == 0) live(kind);
      if (child < 0) usleep(1000);
    }
  }

  [[noreturn]] static void live(std::uint_fast32_t kind) {
    static const char* const kNames[] = {"", "((a) b", ") S 1 2 3", "line\nline", "\xff\xfe", "\x01launcher"};
    for (std::uint_fast32_t i = 0; i < kind % 50; ++i)
      prctl(PR_SET_NAME, kNames[(kind + i) % std::size(kNames)]);
    static_cast<void>(!nice(static_cast<int>(kind % 3)));
    usleep(static_cast<useconds_t>(kind % 4000));
    if (kind % 4 == 0) execl("/bin/true", "", nullptr);
    if (kind % 4 == 1) execl("/bin/sleep", "sleep", "0.003", nullptr);
    if (kind % 4 == 2) kill(getpid(), SIGKILL);
    _exit(0);
  }

  pid_t pid_;
};

int wantedSamples() {
  const char* const wanted = std::getenv("VOLORN_CHURN_SAMPLES");
  return wanted ? std::atoi(wanted) : 160;
}

// Bytes that one shared object may take for good: in the sampler's table, and its id in the kernel's binding.
constexpr std::size_t kBytesOfAnObject = 256;

// Bytes for each object ever seen that the tables take at once when they double.
constexpr std::size_t kBytesOfDoubling = 32;

// Returns how many descriptors were open at most between two samples.
std::size_t takeSamples(RealSampler& real, int count) {
  std::size_t descriptors = 0;
  for (int i = 1; i <= count; ++i) {
    real.sample(i % 8 == 0, i % 3 == 0);  // what is new is walked in every one
    EXPECT_TRUE(sampler.processes.isValid()) << "sample " << i;
    while (const ProcessInfo* pinfo = libtop_piterate()) EXPECT_EQ(pinfo->psamp.seq, sampler.tsamp.seq);
    EXPECT_TRUE(sampler.processes.isValid()) << "after the walk of sample " << i;
    descriptors = std::max(descriptors, openDescriptors());  // the own task is open after some samples
  }
  return descriptors;
}

void sampleWhileProcessesComeAndGo() {
  const Churn churn;
  RealSampler real;
  const std::size_t descriptors = takeSamples(real, 100);
  // The machine's other processes may become more; what is left behind is left behind each time.
  for (int round = 0; round < 10; ++round) {
    const std::size_t bytes = allocatedBytes();
    const std::size_t objects = sampler.shared_objects.size();
    EXPECT_LE(takeSamples(real, wantedSamples() - 100), descriptors);
    const std::size_t objects_now = sampler.shared_objects.size();
    const std::size_t most_bytes =
        bytes + 65536 + (objects_now - objects) * kBytesOfAnObject + objects_now * kBytesOfDoubling;
    const std::size_t bytes_now = allocatedBytes();
    std::printf("%zd bytes and %zu shared objects more\n", static_cast<ssize_t>(bytes_now - bytes),
                objects_now - objects);
    if (bytes_now <= most_bytes || testing::Test::HasFailure()) return;
  }
  FAIL() << "bytes are left behind";
}

TEST(ChurnTest, SamplesLeaveNothingBehind) {
  sampleWhileProcessesComeAndGo();
}

TEST(ChurnTest, SamplesLeaveNothingBehindWithFewDescriptors) {
  rlimit before = {};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit low = before;
  low.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  sampleWhileProcessesComeAndGo();
  setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
}  // namespace volorn
