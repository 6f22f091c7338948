#include "platform/linux/parse_number.h"

#include <string>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  const std::string_view text = textOf(data, size);
  const auto number = linux_host::parseInteger(text);
  if (!number) return 0;
  require(linux_host::parseInteger(std::to_string(*number) + "\n") == number);
  require(text.find_first_not_of("+-0123456789 \t\r\n") == text.npos);
  return 0;
}
