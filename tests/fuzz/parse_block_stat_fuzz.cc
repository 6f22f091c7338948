#include "platform/linux/parse_block_stat.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  const auto stat = parseBlockStat(text);
  if (!stat) return 0;
  require(stat->read_bytes % 512 == 0 && stat->written_bytes % 512 == 0);
  require(text.find_first_of("0123456789") != text.npos);
  return 0;
}
