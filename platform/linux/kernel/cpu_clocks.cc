#include "platform/linux/kernel/cpu_clocks.h"

#include <fcntl.h>
#include <sched.h>

#include <array>
#include <ctime>

#include "platform/linux/kernel/parse_schedule.h"

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kReadingHoldsMs = 1000;

// As many processors as Linux can be built for.
using Processors = std::array<cpu_set_t, 8192 / CPU_SETSIZE>;
constexpr std::int32_t kMostProcessors = 8192;

std::int64_t monotonicMs() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

// Keeps the calling thread on one processor while it lives, where that is allowed.
class StayOn {
 public:
  explicit StayOn(std::int32_t processor) {
    if (sched_getaffinity(0, sizeof before_, before_.data()) != 0) return;
    Processors one = {};
    CPU_SET_S(static_cast<std::size_t>(processor), sizeof one, one.data());
    moved_ = sched_setaffinity(0, sizeof one, one.data()) == 0;
  }
  ~StayOn() {
    if (moved_) sched_setaffinity(0, sizeof before_, before_.data());
  }
  StayOn(const StayOn&) = delete;
  StayOn& operator=(const StayOn&) = delete;

 private:
  Processors before_ = {};
  bool moved_ = false;
};

}  // namespace

std::optional<std::int64_t> CpuClocks::nowMs(std::int32_t processor) {
  if (processor < 0 || processor >= kMostProcessors) return std::nullopt;
  const auto place = static_cast<std::size_t>(processor);
  if (place >= readings_.size()) readings_.resize(place + 1);
  std::optional<Reading>& reading = readings_[place];
  const std::int64_t now_ms = monotonicMs();
  if (!reading || now_ms - reading->taken_ms >= kReadingHoldsMs) {
    reading = Reading{.taken_ms = now_ms, .clock_ms = read(processor)};
  }
  if (!reading->clock_ms) return std::nullopt;
  return *reading->clock_ms + (now_ms - reading->taken_ms);
}

std::optional<std::int64_t> CpuClocks::read(std::int32_t processor) {
  const StayOn stay(processor);
  if (buffer_.read(AT_FDCWD, (proc_root_ + "/thread-self/sched").c_str()) != 0) return std::nullopt;
  const std::optional<ThreadSchedule> own = parseSchedule(buffer_.text());
  if (!own) return std::nullopt;
  return own->last_ran_ms;  // that of a thread that runs is now, but for a tick
}

}  // namespace volorn::linux_host
