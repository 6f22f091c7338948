#include "platform/linux/linux_state_notifier.h"

#include <array>
#include <cerrno>

#include "platform/linux/read_power_supply.h"

namespace volorn::linux_host {
namespace {

struct State {
  std::string_view name;
  bool (*holds)(std::span<const PowerSupply> supplies);
};

// Token n stands for row n - 1.
constexpr std::array kStates = {
    State{kPluggedInState, isPluggedIn},
    State{kFullyChargedState, isFullyCharged},
};

}  // namespace

std::uint32_t LinuxStateNotifier::registerCheck(std::string_view name, std::uint32_t& token) {
  for (std::uint32_t row = 0; row < kStates.size(); ++row) {
    if (kStates[row].name != name) continue;
    token = row + 1;
    return 0;
  }
  return ENOENT;
}

std::uint32_t LinuxStateNotifier::getState(std::uint32_t token, std::uint64_t& state) {
  if (token == 0 || token > kStates.size()) return EINVAL;
  state = kStates[token - 1].holds(readPowerSupplies(sys_root_)) ? 1 : 0;
  return 0;
}

}  // namespace volorn::linux_host
