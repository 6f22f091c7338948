#include "platform/linux/kernel/parse_auxv.h"

#include <cstring>

namespace volorn::linux_host {
namespace {

#if defined(__x86_64__) || defined(__i386__)
constexpr std::uint32_t kType32 = 7;
constexpr std::uint32_t kType64 = 0x1000007;
#elif defined(__aarch64__) || defined(__arm__)
constexpr std::uint32_t kType32 = 12;
constexpr std::uint32_t kType64 = 0x100000C;
#elif defined(__powerpc__)
constexpr std::uint32_t kType32 = 18;
constexpr std::uint32_t kType64 = 0x1000012;
#else
// One that the sampler has no type for is shown as that of the widest range.
constexpr std::uint32_t kType32 = 0x1000012;
constexpr std::uint32_t kType64 = 0x1000012;
#endif

}  // namespace

std::uint32_t processorTypeOf(std::string_view auxv) {
  std::uint64_t type = 0;
  if (auxv.size() < sizeof(type)) return 0;
  std::memcpy(&type, auxv.data(), sizeof(type));
  // Types are small and the first value is not 0: two words of 32 bits make a large number in any byte order.
  return type >> 32 == 0 ? kType64 : kType32;
}

}  // namespace volorn::linux_host
