#pragma once

#include <string>

#include "volornctl/command.h"
#include "volornctl/live/process_list.h"

namespace volorn::ctl {

// The report of the installed platform, the names in it escaped. Throws std::runtime_error where there is no
// list of processes.
std::string memoryText();

// Which rows are shown, and how.
struct MemoryChoice {
  ProcessChoice processes = {};  // its pids and uid
  std::string order = {};        // a column's name; empty: the kernel's order
  bool is_reversed = false;
  bool has_total = false;  // this and the next: of tables alone
  bool is_grouped = false;

  bool operator==(const MemoryChoice&) const = default;
};

// The same as a table, a failed row in its place. Throws as above.
std::string memoryTable(const MemoryChoice& choice, bool colour);

// The same as data.
std::string memoryJson(const MemoryChoice& choice = {});

class MemoryCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  MemoryChoice choice_;
  bool json_ = false;
};

}  // namespace volorn::ctl
