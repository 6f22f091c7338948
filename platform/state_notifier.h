#pragma once

#include <cstdint>
#include <string_view>

namespace volorn {

// Named 64-bit states of the device; for the names below 0 means no and 1 means yes.
class StateNotifier {
 public:
  virtual ~StateNotifier() = default;

  // Registers interest in a state. Returns 0 and a token, or another number and leaves the token alone.
  virtual std::uint32_t registerCheck(std::string_view name, std::uint32_t& token) = 0;

  // Returns 0 and the state of the token's name, or another number and leaves the state alone.
  virtual std::uint32_t getState(std::uint32_t token, std::uint64_t& state) = 0;
};

inline constexpr std::string_view kPluggedInState = "com.zorvik.quenby.pluggedin";
inline constexpr std::string_view kFullyChargedState = "com.zorvik.quenby.fullycharged";

}  // namespace volorn
