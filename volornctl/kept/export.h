#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "volornctl/command.h"

namespace volorn::ctl {

// Prints the body of one request with the snapshots that a receiver does not have yet.
class ExportCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  std::string format_;
  std::optional<std::string> after_;
  std::int64_t max_bytes_ = 1 << 20;
  std::optional<std::string> cursor_file_;
  std::vector<std::string> labels_;
};

}  // namespace volorn::ctl
