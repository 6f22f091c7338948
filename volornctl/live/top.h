#pragma once

#include <cstdint>
#include <optional>

#include "volornctl/command.h"
#include "volornctl/live/process_list.h"

namespace volorn::ctl {

class TopCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  void nameUsers(const Sample& sample);
  void print(const Surroundings& surroundings);

  // False where there is no screen to show anything on.
  bool show(const Surroundings& surroundings);

  double interval_seconds_ = 1;
  std::optional<std::int64_t> count_;
  ProcessChoice choice_;
  UserNames names_;
  bool json_ = false;
};

}  // namespace volorn::ctl
