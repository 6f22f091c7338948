#pragma once

#include <cstdint>
#include <optional>

#include "volornctl/command.h"
#include "volornctl/live/process_list.h"
#include "volornctl/recorded/replay.h"

namespace volorn::ctl {

class TopCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  void addReplayOptions(CLI::App& command);
  void nameUsers(const Sample& sample);
  void print(const Surroundings& surroundings, const Sample& sample, bool is_first);
  void follow(const Surroundings& surroundings);
  void printRecord(const Surroundings& surroundings);

  // False where there is no screen to show anything on.
  bool show(const Surroundings& surroundings);
  bool showRecord(const Surroundings& surroundings);

  double interval_seconds_ = 1;
  std::optional<std::int64_t> count_;
  ProcessChoice choice_;
  CLI::Option* replay_option_ = nullptr;
  ReplayChoice replay_;
  UserNames names_;
  bool json_ = false;
};

}  // namespace volorn::ctl
