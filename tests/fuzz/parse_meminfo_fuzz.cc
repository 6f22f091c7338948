#include "platform/linux/parse_meminfo.h"

#include <string>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  // Whatever stands before it, a field on a line of its own is found.
  const std::string text = "MemTotal: 7 kB\n" + std::string(textOf(data, size)) + "\nMemAvailable: 5 kB\n";
  const linux_host::MemoryInfo info = linux_host::parseMemoryInfo(text);
  require(info.available_kib.has_value());
  const bool repeated =
      text.find("MemTotal", 1) != text.npos || text.find("MemAvailable") != text.rfind("MemAvailable");
  require(repeated || (info.total_kib == 7U && info.available_kib == 5U));
  return 0;
}
