#include "platform/linux/devices/linux_state_notifier.h"

#include <array>
#include <cerrno>

#include "platform/snapshot_keys.h"

namespace volorn::linux_host {
namespace {

struct State {
  std::string_view name;
  std::string_view key;
  SupplyState (*read)(std::span<const PowerSupply> supplies);
};

// Token n stands for row n - 1.
constexpr std::array kStates = {
    State{kPluggedInState, snapshot_key::kPluggedIn, pluggedIn},
    State{kFullyChargedState, snapshot_key::kFullyCharged, fullyCharged},
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
  const State& row = kStates[token - 1];
  const auto [holds, is_known] = row.read(supplies_.readFor(row.key));
  stand_ins_.note(row.key, is_known);
  state = holds ? 1 : 0;
  return 0;
}

}  // namespace volorn::linux_host
