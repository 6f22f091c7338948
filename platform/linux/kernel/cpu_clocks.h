#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/kernel/file_buffer.h"

namespace volorn::linux_host {

// The clocks by which the scheduler says when a thread ran last. Each processor has its own, none is one that
// clock_gettime() knows, and they drift apart by seconds in a day. So the calling thread moves itself to a
// processor to read its clock there. Where it may not, the clock of the processor where it is serves.
class CpuClocks {
 public:
  explicit CpuClocks(std::string proc_root) : proc_root_(std::move(proc_root)) {}

  // What the processor's clock says now. None where the kernel does not show it.
  std::optional<std::int64_t> nowMs(std::int32_t processor);

 private:
  struct Reading {
    std::int64_t taken_ms;  // monotonic
    std::optional<std::int64_t> clock_ms;
  };

  std::optional<std::int64_t> read(std::int32_t processor);

  std::string proc_root_;
  FileBuffer buffer_;
  std::vector<std::optional<Reading>> readings_;  // by processor
};

}  // namespace volorn::linux_host
