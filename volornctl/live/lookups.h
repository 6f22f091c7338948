#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "volornctl/live/process_columns.h"

namespace volorn::ctl {

// Who a process is: pids are used again.
struct ProcessId {
  std::int32_t pid = 0;
  std::int64_t start = 0;

  auto operator<=>(const ProcessId&) const = default;  // NOLINT(modernize-use-nullptr): it is none
};

inline ProcessId idOf(const ProcessFigures& process) {
  return {.pid = process.pid, .start = process.start};
}

struct ThreadFigures {
  std::int32_t id = 0;
  char state = '?';  // as the kernel tells it: R, S, D, T, Z, I
  double cpu_seconds = 0;
  std::string name = {};
};

// Regions of memory that are of one kind.
struct RegionKind {
  const char* kind = "";
  std::uint32_t regions = 0;
  std::uint64_t virtual_bytes = 0;
  std::uint64_t resident_bytes = 0;
  std::uint64_t private_bytes = 0;  // resident, and mapped nowhere else
};

struct OpenedProcess {
  ProcessId id = {};
  std::vector<ThreadFigures> threads = {};
  std::optional<std::vector<RegionKind>> regions = std::nullopt;  // none: nobody may read them
};

// What samples do not hold: it is looked up for what is on the screen alone.
struct Found {
  UserNames users = {};
  std::map<ProcessId, std::string> command_lines =
      {};  // arguments with blanks between; empty: there are none
  std::optional<OpenedProcess> opened = std::nullopt;
};

struct Wanted {
  std::set<std::uint32_t> users = {};
  std::set<ProcessId> command_lines = {};
  std::optional<ProcessId> opened = std::nullopt;

  // A process may write its arguments anew, or begin another program; and all of it changes with time.
  bool changes() const { return opened || !command_lines.empty(); }

  bool operator==(const Wanted&) const = default;
};

// Looks up what is wanted, as far as it can be had. May wait for other processes and for a directory of
// users.
class Lookups {
 public:
  virtual ~Lookups() = default;
  virtual Found lookUp(const Wanted& wanted) = 0;
};

// On this machine.
std::unique_ptr<Lookups> makeLiveLookups();

// Of users alone: of a process that was recorded there is nothing more.
std::unique_ptr<Lookups> makeUserLookups();

}  // namespace volorn::ctl
