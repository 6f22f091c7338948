#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "volornctl/live/process_columns.h"
#include "volornctl/live/sample.h"

namespace volorn::ctl {

// Which processes are shown, and in which order.
struct ProcessChoice {
  std::set<std::int32_t> pids = {};  // empty: all
  std::optional<std::uint32_t> uid = std::nullopt;
  std::string user = "";  // name or number; empty: all
  std::string name = "";  // a part of the command, in letters of either case
  bool hides_kernel_threads = false;
  bool is_tree = false;  // children below their parent
  Column order = Column::kCpu;
  bool is_reversed = false;
  std::optional<std::int64_t> limit = std::nullopt;

  bool operator==(const ProcessChoice&) const = default;
};

struct ProcessRow {
  const ProcessFigures* process = nullptr;  // of the sample
  std::size_t depth = 0;                    // in the tree
};

using ProcessList = std::vector<ProcessRow>;

// What stands equal in the order stays in that of the sample. In a tree, a process whose parent is not chosen
// stands at the top.
ProcessList listProcesses(const Sample& sample, const ProcessChoice& choice, const UserNames& names);

}  // namespace volorn::ctl
