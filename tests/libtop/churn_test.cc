// Samples in a row while processes are born, rename themselves, execute programs and die.
// VOLORN_CHURN_SAMPLES says how many; 10000 take some minutes.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>

#include "tests/libtop/real_sampler.h"
#include "tests/libtop/tree_rules.h"

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

// Processes that end by themselves or are killed, execute programs and rename themselves, until the input
// ends.
constexpr const char* kChurn = R"(exec bash -c '
  called() { (printf "$1" >/proc/self/comm; sleep 0.00$((RANDOM % 4)); :) & }
  until read -t 0; do
    /bin/true & sleep 0.003 & (kill -9 $BASHPID) & (exec -a "" sleep 0.001) &
    called "((a) b"; called ") S 1 2 3"; called "line\nline"; called "\xff\xfe"; called "\x01launcher"
    wait
  done 2>/dev/null')";

// Bytes that one shared object may take for good: in the sampler's table, and its id in the kernel's binding.
constexpr std::size_t kBytesOfAnObject = 256;

// Bytes for each object ever seen that the tables take at once when they double.
constexpr std::size_t kBytesOfDoubling = 32;

// Returns how many descriptors were open at most between two samples.
std::size_t takeSamples(RealSampler& real, int count) {
  std::size_t descriptors = 0;
  for (int i = 1; i <= count; ++i) {
    real.sample(i % 8 == 0, i % 3 == 0);  // what is new is walked in every one
    while (const ProcessInfo* pinfo = libtop_piterate()) EXPECT_EQ(pinfo->psamp.seq, sampler.tsamp.seq);
    EXPECT_TRUE(isRedBlackTree(sampler.processes)) << "sample " << i;
    descriptors = std::max(descriptors, openDescriptors());  // the own task is open after some samples
  }
  return descriptors;
}

class ChurnTest : public testing::TestWithParam<rlim_t> {};

// With so many descriptors at most.
TEST_P(ChurnTest, SamplesLeaveNothingBehind) {
  rlimit before = {};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit limit = {.rlim_cur = std::min(GetParam(), before.rlim_cur), .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const char* const wanted = std::getenv("VOLORN_CHURN_SAMPLES");
  const int samples = (wanted ? std::atoi(wanted) : 160) - 100;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> churn(popen(kChurn, "w"), pclose);
  RealSampler real;
  const std::size_t descriptors = takeSamples(real, 100);
  // The machine's other processes may become more; what is left behind is left behind each time.
  bool left_behind = true;
  for (int round = 0; round < 10 && left_behind && !HasFailure(); ++round) {
    const std::size_t bytes = allocatedBytes();
    const std::size_t objects = sampler.shared_objects.size();
    EXPECT_LE(takeSamples(real, samples), descriptors);
    const std::size_t objects_now = sampler.shared_objects.size();
    const std::size_t most_bytes =
        bytes + 65536 + (objects_now - objects) * kBytesOfAnObject + objects_now * kBytesOfDoubling;
    left_behind = allocatedBytes() > most_bytes;
  }
  EXPECT_FALSE(left_behind);
  setrlimit(RLIMIT_NOFILE, &before);
}

INSTANTIATE_TEST_SUITE_P(Descriptors, ChurnTest, testing::Values(64, RLIM_INFINITY));

}  // namespace
}  // namespace volorn
