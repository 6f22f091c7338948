#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "volornctl/live/sample.h"

namespace volorn::ctl {

// What is shown of a process and ordered by, the most important first.
enum class Column : std::size_t {
  kPid,
  kUser,
  kCpu,
  kPrivate,
  kResident,
  kState,
  kThreads,
  kParent,
  kAge,
  kTime,
  kVirtual,
  kDescriptors,
  kFaults,
  kMajorFaults,
  kSwitches,
  kFootprint,
  kCommand,
};

struct ColumnTraits {
  const char* name;     // as options take it
  const char* heading;  // also the least that the column is wide
  std::size_t width;    // of what is usual, at least; a number that needs more has it
  bool is_text;         // begins at the left, and is cut
  bool most_first;      // in its own order
};

inline constexpr std::array kColumns = {
    ColumnTraits{"pid", "PID", 5, false, false},
    ColumnTraits{"user", "User", 8, true, false},
    ColumnTraits{"cpu", "CPU %", 5, false, true},
    ColumnTraits{"private", "Private", 7, false, true},
    ColumnTraits{"resident", "Resident", 8, false, true},
    ColumnTraits{"state", "State", 8, true, false},
    ColumnTraits{"threads", "Threads", 7, false, true},
    ColumnTraits{"parent", "Parent", 6, false, false},
    ColumnTraits{"age", "Age", 6, false, true},
    ColumnTraits{"time", "CPU time", 8, false, true},
    ColumnTraits{"virtual", "Virtual", 7, false, true},
    ColumnTraits{"descriptors", "Files", 5, false, true},
    ColumnTraits{"faults", "Faults/s", 8, false, true},
    ColumnTraits{"major-faults", "Major/s", 7, false, true},
    ColumnTraits{"switches", "Switches/s", 10, false, true},
    ColumnTraits{"footprint", "Footprint", 9, false, true},
    ColumnTraits{"command", "Command", 7, true, false},
};
static_assert(kColumns.size() == static_cast<std::size_t>(Column::kCommand) + 1);

inline const ColumnTraits& traitsOf(Column column) {
  return kColumns.at(static_cast<std::size_t>(column));
}

std::vector<std::string> columnNames();

// None for a name that no column has.
std::optional<Column> columnNamed(std::string_view name);

// As people read it, and short enough for a column: "blocked" for an uninterruptible one.
const char* shortStateName(std::uint32_t state);

// By user id.
using UserNames = std::map<std::uint32_t, std::string>;

// The name, or the number where there is none.
std::string userText(std::uint32_t uid, const UserNames& names);

// Escaped; a dash for what is not known. `now`: of the sample.
std::string cellText(const ProcessFigures& process, Column column, const Date& now, const UserNames& names);

// By what a column orders: the least stands first in the column's own order, or in the other one, and what is
// not known, infinite, last in both. Not for columns of names, `user` and `command`.
double orderKey(const ProcessFigures& process, Column column, bool reverse);

// The columns that there is room for, in their order, the command last: PID and command always, of the others
// as many of the most important as leave the command its part. `widths`: what each takes, by Column.
std::vector<Column> fittingColumns(const std::array<std::size_t, kColumns.size()>& widths,
                                   std::size_t max_columns);

}  // namespace volorn::ctl
