#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/state/state_reader.h"
#include "volornctl/command.h"

namespace volorn::ctl {

// The newest snapshot. Throws StateUnreadable, also when none has been taken.
linux_host::StoredSnapshot readNewestSnapshot(const std::string& state_directory);

std::string metricsJson(const linux_host::StoredSnapshot& snapshot);
std::string metricsTable(const linux_host::StoredSnapshot& snapshot, const Moment& moment, bool colour);

// A key as people are shown it.
std::string withoutPrefix(std::string_view key);

// False for a value that stands for a reading that failed.
bool isKnown(std::string_view key, std::int64_t value);

// What a snapshot's value tells people, with its unit: "93.75 %", "3 h 25 min". Empty where nothing can be
// added to the number, as for a key that this program does not know.
std::string reading(std::string_view key, std::int64_t value);

class MetricsCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  bool json_ = false;
  bool open_metrics_ = false;
  std::optional<std::string> file_;
};

}  // namespace volorn::ctl
