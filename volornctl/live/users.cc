#include "volornctl/live/users.h"

#include <pwd.h>

#include <cerrno>
#include <vector>

#include "volornctl/number_option.h"

namespace volorn::ctl {
namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 20;

// `ask` takes what getpwnam_r() takes after the name.
template <typename Ask, typename Take>
auto askForUser(const Ask& ask, const Take& take) -> std::optional<decltype(take(passwd()))> {
  for (std::vector<char> texts(1024); texts.size() <= kMostBytes; texts.resize(2 * texts.size())) {
    passwd entry = {};
    passwd* found = nullptr;
    const int error = ask(&entry, texts.data(), texts.size(), &found);
    if (error == ERANGE) continue;
    if (error != 0 || !found) break;
    return take(*found);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::uint32_t> userIdOf(const std::string& name) {
  const auto ask = [&](auto... rest) { return getpwnam_r(name.c_str(), rest...); };
  const auto uid = askForUser(ask, [](const passwd& entry) { return std::uint32_t{entry.pw_uid}; });
  return uid ? uid : numberOf<std::uint32_t>(name);
}

std::optional<std::string> userNameOf(std::uint32_t uid) {
  const auto ask = [&](auto... rest) { return getpwuid_r(uid, rest...); };
  return askForUser(ask, [](const passwd& entry) { return std::string(entry.pw_name); });
}

}  // namespace volorn::ctl
