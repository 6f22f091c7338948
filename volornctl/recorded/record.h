#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "volornctl/command.h"
#include "volornctl/recorded/recorder.h"

namespace volorn::ctl {

// Records what `top` sees.
class RecordCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;
  int exitStatus() const override { return is_whole_ ? 0 : 1; }

 private:
  double interval_seconds_ = kDefaultRecordSeconds;
  std::int64_t keep_bytes_ = std::int64_t{64} << 20;
  std::optional<std::int64_t> count_;
  std::string path_;
  bool is_whole_ = true;
};

}  // namespace volorn::ctl
