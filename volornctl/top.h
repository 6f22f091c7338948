#pragma once

#include <cstdint>
#include <optional>

#include "volornctl/command.h"
#include "volornctl/top_figures.h"

namespace volorn::ctl {

class TopCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  double interval_seconds_ = 1;
  std::optional<std::int64_t> count_;
  TopOrder order_ = TopOrder::kCpu;
  bool json_ = false;
};

}  // namespace volorn::ctl
