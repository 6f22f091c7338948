// Records a machine that is scripted, in no time:
//   record_a_scripted_machine FILE KEEP_BYTES SAMPLES PROCESSES
// A sample every five seconds; of a hundred processes five work, and one goes for another to come. Prints,
// for each tenth of the samples, how much memory the process has in KiB.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>

#include "volornctl/live/process_list.h"
#include "volornctl/live/top_json.h"
#include "volornctl/recorded/recorder.h"

namespace {

using namespace volorn;
using namespace volorn::ctl;

constexpr double kStart = 1795406706.0;  // 2026-11-23 04:05:06 UTC

class Machine {
 public:
  explicit Machine(std::size_t processes) {
    sample_.total_bytes = std::uint64_t{8} << 30;
    while (sample_.processes.size() < processes) sample_.processes.push_back(another());
  }

  const Sample& next() {
    seconds_ += 5;
    sample_.at = Date::fromSecondsSince1970(kStart + seconds_);
    sample_.interval_seconds = 5;
    sample_.user_percent = static_cast<double>(random_() % 1000) / 10;
    sample_.system_percent = 0;
    sample_.available_bytes = random_() % sample_.total_bytes;
    const std::size_t count = sample_.processes.size();
    for (std::size_t i = 0; i < count; i += 20) work(sample_.processes[i]);
    if (random_() % 20 == 0) sample_.processes[random_() % count] = another();
    return sample_;
  }

 private:
  ProcessFigures another() {
    ++pid_;
    return {.pid = pid_,
            .ppid = 1,
            .uid = 1000,
            .command = "process " + std::to_string(pid_),
            .started_at = Date::fromSecondsSince1970(kStart + seconds_),
            .state = kProcessIdle,
            .cpu_percent = 0,
            .threads = 1,
            .resident_bytes = random_() % 100'000 * 4096,
            .private_bytes = random_() % 100'000 * 4096,
            .virtual_bytes = random_() * std::uint64_t{4096},
            .faults_per_second = 0,
            .major_faults_per_second = 0,
            .context_switches_per_second = 0};
  }
  void work(ProcessFigures& process) {
    process.cpu_percent = static_cast<double>(random_() % 100) / 5.0123;
    process.cpu_seconds += static_cast<double>(random_() % 100) / 100;
    process.resident_bytes += 4096;
    process.faults_per_second = static_cast<double>(random_() % 1000) / 5.0123;
    process.context_switches_per_second = static_cast<double>(random_() % 1000) / 5.0123;
  }

  std::mt19937 random_{7};
  Sample sample_;
  std::int32_t pid_ = 1;
  double seconds_ = 0;
};

long residentKib() {
  long pages = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (!file || std::fscanf(file, "%*d %ld", &pages) != 1) std::abort();
  std::fclose(file);
  return pages * 4;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const auto tell = [](const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); };
  const std::int64_t samples = std::atoll(argv[3]);
  try {
    RecordFile file(argv[1], std::atoll(argv[2]), tell);
    Recorder recorder(file, kDefaultRecordSeconds, tell);
    Machine machine(static_cast<std::size_t>(std::atoll(argv[4])));
    for (std::int64_t i = 1; i <= samples; ++i) {
      const Sample& sample = machine.next();
      recorder.take(sample, topJson(sample, listProcesses(sample, {.order = Column::kPid}, {})), 0);
      if (samples >= 10 && i % (samples / 10) == 0) std::printf("%ld\n", residentKib());
    }
    return recorder.finish() ? 0 : 1;
  } catch (const std::exception& error) {
    tell(error.what());
    return 1;
  }
}
