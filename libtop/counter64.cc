#include "libtop/libtop.h"

namespace volorn {

Counter64 libtop_i64_init(std::uint64_t total, std::uint32_t raw) {
  return {.total = total != 0 ? total : raw, .last = raw};
}

void libtop_i64_update(Counter64& counter, std::uint32_t raw) {
  counter.total += static_cast<std::uint64_t>(static_cast<std::int32_t>(raw - counter.last));
  counter.last = raw;
}

}  // namespace volorn
