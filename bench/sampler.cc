// What a sample costs for each task: nanoseconds (the scripted kernel's own included) and bytes kept.
//
// Usage: sampler [OPTION ...], options as Google's benchmark library has them. sampler --real [PROCESSES
// [ROUNDS]] measures samples of this machine instead, where the libraries to compare with are there.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <string_view>

#ifdef VOLORN_BENCH_REAL
#include "bench/sampler_real.h"
#endif
#include "libtop/libtop.h"
#include "platform/fake/fake_host.h"

namespace volorn {
namespace {

constexpr std::uint64_t kPage = 4096;

fake::FakeRegion region(std::uint64_t address, ShareMode mode, std::uint32_t object_id) {
  fake::FakeRegion made = {.address = address, .size = kPage};
  made.top.share_mode = mode;
  made.top.object_id = object_id;
  return made;
}

// Tasks of one thread and three regions, the last of an object that all share.
void addTasks(fake::FakeKernel& kernel, std::int32_t count) {
  for (std::int32_t pid = 1; pid <= count; ++pid) {
    fake::FakeTask& task = kernel.addTask(pid, "worker");
    task.regions = {region(1 * kPage, ShareMode::private_pages, 0), region(2 * kPage, ShareMode::empty, 0),
                    region(3 * kPage, ShareMode::shared, 1)};
  }
}

std::size_t allocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

bool startAndSample() {
  return libtop_init(nullptr, nullptr) == 0 && libtop_sample(true, false) == 0;
}

// `range(0)`: tasks. `range(1)`: whether every sample walks all regions.
void sampleTasks(benchmark::State& state) {
  const std::int64_t task_count = state.range(0);
  const bool walk_regions = state.range(1) != 0;
  fake::FakeHost host;
  const Services services = host.services();
  const ScopedServices scoped(services);
  addTasks(host.kernel, static_cast<std::int32_t>(task_count));
  bool works = startAndSample();
  libtop_fini();
  const std::size_t before = allocatedBytes();  // the first sample has made the kernel allocate what it keeps
  works = works && startAndSample();
  const std::size_t kept = allocatedBytes() - before;
  for (auto _ : state) {
    works = works && libtop_sample(walk_regions, false) == 0;
  }
  if (!works) state.SkipWithError("a sample failed");
  const auto count = static_cast<double>(task_count);
  state.counters["time_per_task"] =
      benchmark::Counter(count, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["bytes_per_task"] = static_cast<double>(kept) / count;
  libtop_fini();
}

// The number of samples is fixed: to make the tasks takes longer than to sample them.
BENCHMARK(sampleTasks)->ArgsProduct({{1'000}, {0, 1}})->Iterations(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(sampleTasks)->ArgsProduct({{30'000}, {0, 1}})->Iterations(30)->Unit(benchmark::kMillisecond);
BENCHMARK(sampleTasks)->ArgsProduct({{1'000'000}, {0, 1}})->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace volorn

int main(int argc, char** argv) {
#ifdef VOLORN_BENCH_REAL
  if (argc > 1 && std::string_view(argv[1]) == "--real") {
    return volorn::measureRealSamples(argc > 2 ? std::atoi(argv[2]) : 600, argc > 3 ? std::atoi(argv[3]) : 9);
  }
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
