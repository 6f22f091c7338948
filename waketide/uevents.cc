#include "waketide/uevents.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <string_view>

namespace volorn::waketide {
namespace {

constexpr unsigned kKernelsGroup = 1;  // udev tells of the same events again in group 2

}  // namespace

Uevents::Uevents()
    : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT)) {
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_groups = kKernelsGroup;
  if (fd_ && bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    fd_ = linux_host::FileDescriptor();
}

Uevents::Heard Uevents::take() {
  using namespace std::string_view_literals;
  Heard heard = Heard::kNothing;
  char buffer[8192];  // more than the kernel sends of one
  for (;;) {
    const ssize_t size = recv(fd_.get(), buffer, sizeof buffer, 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == ENOBUFS) {
      heard = Heard::kTooMany;
      continue;
    }
    if (size < 0) return heard;
    const std::string_view event(buffer, static_cast<std::size_t>(size));
    const bool is_of_supply = event.find("\0SUBSYSTEM=power_supply\0"sv) != std::string_view::npos;
    if (is_of_supply && heard == Heard::kNothing) heard = Heard::kPowerSupply;
  }
}

}  // namespace volorn::waketide
