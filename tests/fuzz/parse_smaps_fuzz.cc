#include "platform/linux/regions/parse_smaps.h"

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  const std::string_view text = textOf(data, size);
  std::vector<Mapping> mappings;
  const auto taken = parseSmaps(text, 4096, mappings);
  for (const Mapping& mapping : mappings) require(mapping.start < mapping.end);
  if (!taken) return 0;
  require(*taken == text.rfind('\n') + 1);
  // Wherever a piece ends, the next begins with what was left.
  std::vector<Mapping> same;
  const auto first = parseSmaps(text.substr(0, size / 2), 4096, same);
  require(first.has_value());
  const auto rest = parseSmaps(text.substr(*first), 4096, same);
  require(rest.has_value() && *first + *rest == *taken);
  require(same.size() == mappings.size());
  for (std::size_t i = 0; i < same.size(); ++i) {
    require(same[i].start == mappings[i].start && same[i].private_pages == mappings[i].private_pages);
  }
  return 0;
}
