#include "platform/linux/kernel/parse_process_statm.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  const std::string_view text = textOf(data, size);
  const auto pages = linux_host::parseResidentPages(text);
  require(!pages || text.find_first_of("0123456789") != text.npos);
  return 0;
}
