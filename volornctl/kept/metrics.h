#pragma once

#include <optional>
#include <string>

#include "platform/linux/state/state_reader.h"
#include "volornctl/command.h"

namespace volorn::ctl {

// The newest snapshot. Throws StateUnreadable, also when none has been taken.
linux_host::StoredSnapshot readNewestSnapshot(const std::string& state_directory);

std::string metricsJson(const linux_host::StoredSnapshot& snapshot);
std::string metricsTable(const linux_host::StoredSnapshot& snapshot, const Moment& moment, bool colour);

class MetricsCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  bool json_ = false;
  bool open_metrics_ = false;
  std::optional<std::string> file_;
  std::optional<std::string> key_;
  bool value_ = false;
};

}  // namespace volorn::ctl
