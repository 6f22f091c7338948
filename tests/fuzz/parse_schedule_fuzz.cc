#include "platform/linux/kernel/parse_schedule.h"

#include <string>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  parseSchedule(text);
  // No name that a process can have changes what is read.
  const auto schedule = parseSchedule(std::string(text.substr(0, 15)) + " (1, #threads: 1)\n" +
                                      std::string(67, '-') + "\nse.exec_start : 31.5\nnr_switches : 6\n");
  require(schedule.has_value() && schedule->last_ran_ms == 31 && schedule->context_switches == 6);
  return 0;
}
