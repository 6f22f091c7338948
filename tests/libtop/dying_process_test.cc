// Processes that end, and pids that another process gets, between any two calls by which a process is read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "tests/libtop/real_sampler.h"
#include "tests/platform/linux/fixture_tree.h"

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

}  // extern "C"

namespace volorn {
namespace {

namespace fs = std::filesystem;
using linux_host::FixtureTree;
using linux_host::ProcessFixture;

constexpr int kPid = 42;

// Each figure of the second is greater than any of the first.
constexpr ProcessFixture kFirst = {.name = "first", .user_ticks = 7, .system_ticks = 8};
constexpr ProcessFixture kSecond = {.name = "second",
                                    .user_ticks = 7000,
                                    .system_ticks = 8000,
                                    .start_ticks = 2000,
                                    .context_switches = 6000,
                                    .resident_kib = 8000,
                                    .private_kib = 4000,
                                    .effective_user = 65534};

std::array<std::uint64_t, 5> figuresOf(const ProcessSample& process) {
  const auto centiseconds = process.total_time.seconds * 100 + process.total_time.microseconds / 10'000;
  return {process.uid, process.csw.value, process.resident, process.private_resident,
          static_cast<std::uint64_t>(centiseconds)};
}

constexpr std::array<std::uint64_t, 5> kOfFirst = {8, 6, 8 << 10, 4 << 10, 15};
constexpr std::array<std::uint64_t, 5> kOfSecond = {65534, 6000, 8000 << 10, 4000 << 10, 15000};

constexpr int kMostCalls = 1'000'000;

void end(const FixtureTree& tree, std::string_view ending) {
  const fs::path folder = tree.at("42");
  if (ending == "gone") fs::remove_all(folder);
  if (ending == "zombie") {
    for (const char* file : {"status", "statm", "smaps", "auxv", "fd"}) fs::remove_all(folder / file);
  }
  if (ending == "replaced") {
    fs::rename(folder, tree.at("ended"));
    fs::rename(tree.at("second/42"), folder);
  }
}

void updateStruckAt(int call, RealSampler& real, const FixtureTree& tree, std::string_view ending) {
  for (const char* folder : {"42", "ended", "second"}) fs::remove_all(tree.at(folder));
  kFirst.write(tree, kPid);
  kSecond.write(tree, kPid, "second/");
  sampler.processes.clear();
  calls_before_strike = call;
  strike = [&] { end(tree, ending); };
  const int result = real.update(kPid);
  strike = nullptr;
  const ProcessSample* process = RealSampler::process(kPid);
  EXPECT_EQ(process != nullptr, result == kProcessUpdated);
  if (process && process->command == kSecond.name) {
    EXPECT_EQ(figuresOf(*process), kOfSecond);
  } else if (process) {  // perhaps not all of it
    for (std::size_t i = 0; i < kOfFirst.size(); ++i) EXPECT_LE(figuresOf(*process)[i], kOfFirst[i]) << i;
  }
}

std::ptrdiff_t openDescriptors() {
  const fs::directory_iterator list("/proc/self/fd");
  return std::distance(begin(list), end(list));
}

class DyingProcessTest : public testing::TestWithParam<const char*> {};

TEST_P(DyingProcessTest, IsSkippedOrKeptAndNeverMixedWithAnother) {
  const FixtureTree tree;
  linux_host::writeSystem(tree);
  const std::ptrdiff_t before = openDescriptors();
  {
    RealSampler real(linux_host::RegionSource::smaps, tree.root());
    updateStruckAt(kMostCalls, real, tree, GetParam());
    EXPECT_EQ(figuresOf(*RealSampler::process(kPid)), kOfFirst);
    const int calls = kMostCalls - calls_before_strike;
    EXPECT_GT(calls, 10);
    for (int call = 0; call < calls; ++call) {
      updateStruckAt(call, real, tree, GetParam());
      ASSERT_FALSE(HasFailure()) << "before call " << call;
    }
  }
  EXPECT_EQ(openDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Endings, DyingProcessTest, testing::Values("zombie", "gone", "replaced"));

}  // namespace
}  // namespace volorn
