#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace volorn::ctl {

// The user of this name, or of this number. None where there is no such name. May ask a directory of users
// over the network.
std::optional<std::uint32_t> userIdOf(const std::string& name);

// None for a user without a name. May ask as the above.
std::optional<std::string> userNameOf(std::uint32_t uid);

}  // namespace volorn::ctl
