#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace volorn::linux_host {

// Finds the runs of pages of a process that are of a kind, hole by hole and not page by page: the
// PAGEMAP_SCAN of /proc/PID/pagemap, since Linux 6.7, which the headers of older systems lack.
class PageScan {
 public:
  struct Run {
    std::uint64_t start;  // addresses
    std::uint64_t end;
    std::uint64_t categories;
  };
  enum class Kind { present_or_swapped, present_but_zero_pages };

  // Calls `take(start, end)` for each run within the addresses, upwards, until one gives false. False then,
  // and when the scan fails, with errno set.
  template <typename Take>
  bool forEachRun(int page_map, std::uint64_t start, std::uint64_t end, Kind kind, Take take) {
    while (start < end) {
      std::uint64_t walked_to = 0;
      const int count = scan(page_map, start, end, kind, walked_to);
      if (count < 0) return false;
      for (int i = 0; i < count; ++i) {
        const Run& run = runs_[static_cast<std::size_t>(i)];
        if (!take(run.start, run.end)) return false;
        walked_to = std::max(walked_to, run.end);  // the kernel may tell of less than it has walked
      }
      if (walked_to <= start) {
        errno = EIO;
        return false;
      }
      start = walked_to;
    }
    return true;
  }

 private:
  // Fills `runs_` and returns how many, or -1.
  int scan(int page_map, std::uint64_t start, std::uint64_t end, Kind kind, std::uint64_t& walked_to);

  std::array<Run, 512> runs_ = {};  // as many as the kernel gathers at a time
};

}  // namespace volorn::linux_host
