#pragma once

#include "platform/linux/devices/read_power_supply.h"
#include "platform/linux/stand_ins.h"
#include "platform/state_notifier.h"

namespace volorn::linux_host {

// The states of the system's power supplies, as of one reading of them until a state is asked for again.
class LinuxStateNotifier : public StateNotifier {
 public:
  LinuxStateNotifier(SupplyReadings& supplies, StandIns& stand_ins)
      : supplies_(supplies), stand_ins_(stand_ins) {}

  // ENOENT for a name other than kPluggedInState and kFullyChargedState.
  std::uint32_t registerCheck(std::string_view name, std::uint32_t& token) override;

  // EINVAL for a token that was never handed out. A state that no supply tells is 0.
  std::uint32_t getState(std::uint32_t token, std::uint64_t& state) override;

 private:
  SupplyReadings& supplies_;
  StandIns& stand_ins_;
};

}  // namespace volorn::linux_host
