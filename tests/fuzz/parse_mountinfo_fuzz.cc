#include "platform/linux/kernel/parse_mountinfo.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  const std::string_view line = textOf(data, size);
  const auto mounted = linux_host::parseMount(line);
  require(!mounted || (!mounted->type.empty() && mounted->type.find(' ') == mounted->type.npos));
  return 0;
}
