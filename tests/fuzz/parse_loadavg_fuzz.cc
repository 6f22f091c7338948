#include "platform/linux/parse_loadavg.h"

#include <cmath>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  const linux_host::LoadAverages averages = linux_host::parseLoadAverages(textOf(data, size));
  require(averages.count >= 0 && averages.count <= 3);
  for (const double sample : averages.samples) require(std::isfinite(sample) && sample >= 0.0);
  return 0;
}
