#include "platform/linux/kernel/parse_vmstat.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  const auto counters = parseVmCounters(text);
  require(!counters || text.find("pgfault ") != text.npos);
  return 0;
}
