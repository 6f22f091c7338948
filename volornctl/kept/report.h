#pragma once

#include <optional>
#include <string>

#include "volornctl/command.h"
#include "volornctl/kept/figures.h"
#include "volornctl/kept/verdict.h"

namespace volorn::ctl {

// A page of HTML, whole in itself: it asks for nothing else and runs nothing. It names neither the device nor
// its users nor where files lie. Times are UTC. The history must not be empty.
std::string reportPage(const History& history, const std::optional<Verdict>& verdict, const Date& now);

class ReportCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  std::string file_;
};

}  // namespace volorn::ctl
