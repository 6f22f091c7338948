#include "platform/linux/kernel/switch_counts.h"

#include <algorithm>
#include <utility>

namespace volorn::linux_host {

// A thread that executes a program ends all others, takes number and start of the first one and keeps its own
// count: of those seen it is the one whose count lies nearest below.
void SwitchCounts::findExecutor(const Thread& only) {
  const auto executor = std::ranges::max_element(seen_, {}, [&](const Thread& thread) {
    return thread.switches <= only.switches ? thread.switches + 1 : 0;
  });
  if (executor == seen_.end()) return;
  std::swap(*executor, seen_.front());
  for (std::size_t i = 1; i < seen_.size(); ++i) ended_ += seen_[i].switches;
  seen_.resize(1);
  seen_[0] = {.id = only.id, .start_ticks = only.start_ticks, .switches = seen_[0].switches};
}

std::uint64_t SwitchCounts::totalWith(std::vector<Thread>& live, std::uint64_t start_code) {
  const bool has_executed = std::exchange(start_code_, start_code) != start_code;
  if (has_executed && live.size() == 1) findExecutor(live[0]);
  if (!std::ranges::is_sorted(live, {}, &Thread::id)) std::ranges::sort(live, {}, &Thread::id);
  auto same = live.begin();
  for (const Thread& thread : seen_) {
    while (same != live.end() && same->id < thread.id) ++same;
    const bool lives = same != live.end() && same->isSame(thread) && same->switches >= thread.switches;
    if (!lives) ended_ += thread.switches;
  }
  std::uint64_t total = ended_;
  for (const Thread& thread : live) total += thread.switches;
  if (live.size() > 1 || !seen_.empty()) seen_.swap(live);
  return total;
}

}  // namespace volorn::linux_host
