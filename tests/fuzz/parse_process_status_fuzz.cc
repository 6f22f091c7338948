#include "platform/linux/kernel/parse_process_status.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  const auto status = parseProcessStatus(text);
  if (!status) return 0;
  require(text.find("Uid:") != text.npos);
  require(status->resident_bytes == 0 || text.find("VmRSS:") != text.npos);
  return 0;
}
