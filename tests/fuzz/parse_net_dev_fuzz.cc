#include "platform/linux/kernel/parse_net_dev.h"

#include <algorithm>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  const auto links = parseNetDev(text);
  if (!links) return 0;
  require(links->size() <= static_cast<std::size_t>(std::count(text.begin(), text.end(), ':')));
  return 0;
}
