#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/regions/mapping.h"
#include "platform/linux/regions/page_scan.h"

namespace volorn::linux_host {

// Reads the mappings of a process by the mapping query, and counts their pages in /proc/PID/pagemap: eight
// bytes for each page, there or not. Keeps its buffers. An entry tells no swapped page from a mark that
// userfaultfd has left for an absent one, so that memory with such marks alone is not shown as empty.
class PageMapSource {
 public:
  struct Failure {
    int error = 0;               // errno; 0 when there is none
    bool is_of_process = false;  // it is gone, or the reader may not see its memory, however he reads it
  };

  explicit PageMapSource(std::uint64_t page_size_bytes);

  // Appends the mappings of the process whose folder of /proc is open.
  Failure read(int process_folder, std::vector<Mapping>& mappings);

 private:
  // These set errno when they fail.
  bool count(int page_map, std::span<Mapping> mappings);
  bool countTogether(int page_map, std::span<Mapping> mappings);
  bool countPresent(int page_map, Mapping& mapping);
  bool countRange(int page_map, std::uint64_t start, std::uint64_t end, Mapping& mapping);
  bool readEntries(int page_map, std::uint64_t start, std::uint64_t end);
  void tally(std::span<const std::uint64_t> entries, Mapping& mapping);
  bool takeOutZeroPages(int page_map, Mapping& mapping);
  std::size_t countNear(std::span<const Mapping> mappings) const;
  bool isLarge(const Mapping& mapping) const;
  std::size_t pagesIn(std::uint64_t start, std::uint64_t end) const;  // fewer than memory has bytes

  std::uint64_t page_size_bytes_;
  std::vector<std::uint64_t> entries_;
  PageScan scan_;
  bool has_doubtful_pages_ = false;  // zero pages may be among the shared pages just tallied
};

}  // namespace volorn::linux_host
