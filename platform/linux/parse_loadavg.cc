#include "platform/linux/parse_loadavg.h"

#include <charconv>

namespace volorn::linux_host {
namespace {

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

}  // namespace

LoadAverages parseLoadAverages(std::string_view text) {
  LoadAverages averages;
  const char* at = text.data();
  const char* const end = at + text.size();
  for (double& sample : averages.samples) {
    // from_chars would also take a minus, "inf" and "nan".
    if (at == end || !isDigit(*at)) break;
    double value = 0.0;
    const auto [stopped, error] = std::from_chars(at, end, value, std::chars_format::fixed);
    if (error != std::errc() || (stopped != end && *stopped != ' ' && *stopped != '\n')) break;
    sample = value;
    ++averages.count;
    at = stopped == end ? end : stopped + 1;
  }
  return averages;
}

}  // namespace volorn::linux_host
