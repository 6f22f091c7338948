#pragma once

#include <string>
#include <utility>

#include "platform/linux/stand_ins.h"
#include "platform/state_notifier.h"

namespace volorn::linux_host {

// The states of the system's power supplies, each worked out at the moment it is asked for.
class LinuxStateNotifier : public StateNotifier {
 public:
  LinuxStateNotifier(std::string sys_root, StandIns& stand_ins)
      : sys_root_(std::move(sys_root)), stand_ins_(stand_ins) {}

  // ENOENT for a name other than kPluggedInState and kFullyChargedState.
  std::uint32_t registerCheck(std::string_view name, std::uint32_t& token) override;

  // EINVAL for a token that was never handed out. A state that no supply tells is 0.
  std::uint32_t getState(std::uint32_t token, std::uint64_t& state) override;

 private:
  std::string sys_root_;
  StandIns& stand_ins_;
};

}  // namespace volorn::linux_host
