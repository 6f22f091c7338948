#include "waketide/supply_watch.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <exception>

#include "platform/linux/devices/read_usage_mark.h"
#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kCalm = 10s;
constexpr auto kLongest = 60s;
constexpr auto kUnsure = 1s;
constexpr std::int64_t kShortestSleepNs = 100'000'000;

void noteOrTell(const std::string& state_directory, const Note& due) {
  try {
    note(state_directory, due);
  } catch (const std::exception& error) {
    tell(error.what());
  }
}

}  // namespace

std::optional<Note> SupplyWatch::take() {
  const auto heard = events_.take();
  const bool is_first = asleep_ns_ < 0;
  const std::int64_t asleep_ns = linux_host::readSleepNs();
  const bool slept = asleep_ns - asleep_ns_ >= kShortestSleepNs;
  if (heard == Uevents::Heard::kNothing && !slept && !is_first) return std::nullopt;
  const auto seen = linux_host::readUsageMark("/proc", "/sys");
  has_battery_ = has_battery_ || seen.has_battery;
  const Clock::time_point now = Clock::now();
  const bool differs = seen.plugged_in != plugged_in_ || seen.is_full != is_full_;
  plugged_in_ = seen.plugged_in;
  is_full_ = seen.is_full;
  asleep_ns_ = asleep_ns;
  const bool some_lost = heard == Uevents::Heard::kTooMany;
  const bool is_due = differs || slept || is_first || some_lost || now < unsure_until_;
  if (!is_due || !has_battery_) return std::nullopt;
  unsure_until_ = now + kUnsure;
  return Note{.some_lost = some_lost};
}

void settle(const std::string& state_directory) {
  SupplyWatch watch;
  const Clock::time_point end = Clock::now() + kLongest;
  Clock::time_point calm = end;
  for (;;) {
    if (const auto due = watch.take()) {
      noteOrTell(state_directory, *due);
      calm = Clock::now() + kCalm;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(calm, end) - Clock::now());
    if (left <= left.zero()) return;
    pollfd waited = {watch.fd(), POLLIN, 0};
    poll(&waited, 1, static_cast<int>(left.count()));
  }
}

}  // namespace volorn::waketide
