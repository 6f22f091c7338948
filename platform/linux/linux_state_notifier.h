#pragma once

#include <string>
#include <utility>

#include "platform/state_notifier.h"

namespace volorn::linux_host {

// The states of the system's power supplies, each worked out at the moment it is asked for.
class LinuxStateNotifier : public StateNotifier {
 public:
  explicit LinuxStateNotifier(std::string sys_root) : sys_root_(std::move(sys_root)) {}

  // ENOENT for a name other than kPluggedInState and kFullyChargedState.
  std::uint32_t registerCheck(std::string_view name, std::uint32_t& token) override;

  // EINVAL for a token that was never handed out.
  std::uint32_t getState(std::uint32_t token, std::uint64_t& state) override;

 private:
  std::string sys_root_;
};

}  // namespace volorn::linux_host
