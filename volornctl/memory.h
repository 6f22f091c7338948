#pragma once

#include <string>

#include "volornctl/command.h"

namespace volorn::ctl {

// The report of the installed platform, the names in it escaped. Throws std::runtime_error where there is no
// list of processes.
std::string memoryText();

// The same as data.
std::string memoryJson();

class MemoryCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  bool json_ = false;
};

}  // namespace volorn::ctl
