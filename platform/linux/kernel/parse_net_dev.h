#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace volorn::linux_host {

// A network link's counters since it was made; 64 bits also on a processor of 32.
struct LinkCounters {
  std::uint64_t received_bytes = 0;
  std::uint64_t received_packets = 0;
  std::uint64_t sent_bytes = 0;
  std::uint64_t sent_packets = 0;

  friend bool operator==(const LinkCounters&, const LinkCounters&) = default;
};

// The text of /proc/net/dev, a link a line below two lines of heads:
//   Inter-|   Receive                                                |  Transmit
//    face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop ...
//     eth0: 18759491     566    0    0    0     0          0         0    29271     358    0    0 ...
// None where a line cannot be read.
std::optional<std::vector<LinkCounters>> parseNetDev(std::string_view text);

}  // namespace volorn::linux_host
