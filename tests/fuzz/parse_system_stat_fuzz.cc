#include "platform/linux/kernel/parse_system_stat.h"

#include <string>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  parseSystemStat(text);
  const auto stat = parseSystemStat("cpu  1 2 3 4 5 6 7\n" + std::string(text.substr(0, text.find("btime"))) +
                                    "\nbtime 9\n");
  require(stat.has_value() && stat->ticks.user == 1 && stat->boot_time_seconds == 9);
  return 0;
}
