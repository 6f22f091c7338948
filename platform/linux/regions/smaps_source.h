#pragma once

#include <cstdint>
#include <vector>

#include "platform/linux/regions/mapping.h"

namespace volorn::linux_host {

// Reads the mappings of a process and their pages from the text of /proc/PID/smaps. Keeps its buffer.
class SmapsSource {
 public:
  explicit SmapsSource(std::uint64_t page_size_bytes);

  // Appends the mappings of the process whose folder of /proc is open. False when that cannot be had.
  bool read(int process_folder, std::vector<Mapping>& mappings);

 private:
  std::uint64_t page_size_bytes_;
  std::vector<char> text_;
};

}  // namespace volorn::linux_host
