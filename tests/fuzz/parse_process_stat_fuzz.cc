#include "platform/linux/kernel/parse_process_stat.h"

#include <string>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  parseProcessStat(text);
  // Whatever a process calls itself, its figures stand behind.
  const auto stat = parseProcessStat("5 (" + std::string(text) +
                                     ") S 1 2 3 0 -1 64 10 0 3 0 7 8 0 0 20 0 1 0 1000 4096 1 99 5 2 3 0 0 0 "
                                     "0 0 0 0 0 0 17 1 0\n");
  require(stat.has_value() && stat->state == 'S' && stat->start_ticks == 1000 && stat->processor == 1);
  require(stat->name() == text.substr(0, ProcessStat::kNameCapacityBytes));
  return 0;
}
