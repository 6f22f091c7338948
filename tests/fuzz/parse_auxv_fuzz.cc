#include "platform/linux/kernel/parse_auxv.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn::linux_host;
  const std::uint32_t type = processorTypeOf(volorn::textOf(data, size));
  const std::uint32_t own_type = processorTypeOf({"\x21\0\0\0\0\0\0\0", 8});
  const std::uint32_t type_of_32_bits = processorTypeOf({"\x20\0\0\0\0\xd0\xff\xf7", 8});
  volorn::require(type == 0 || type == own_type || type == type_of_32_bits);
  volorn::require(size >= 8 || type == 0);
  return 0;
}
