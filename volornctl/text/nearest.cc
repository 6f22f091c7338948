#include "volornctl/text/nearest.h"

#include <algorithm>
#include <cstddef>

namespace volorn::ctl {
namespace {

std::size_t distanceBetween(std::string_view a, std::string_view b) {
  // Of each beginning of `a`, to each beginning of `b`.
  std::vector<std::vector<std::size_t>> changes(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      std::size_t& fewest = changes[i][j];
      fewest = i + j;  // where either is empty
      if (i == 0 || j == 0) continue;
      const std::size_t replaced = changes[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      fewest = std::min({changes[i - 1][j] + 1, changes[i][j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) fewest = std::min(fewest, changes[i - 2][j - 2] + 1);
    }
  }
  return changes[a.size()][b.size()];
}

}  // namespace

std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& names) {
  constexpr std::size_t kLongest = 64;  // of no name's length
  if (word.size() > kLongest) return std::nullopt;
  std::size_t fewest = std::max<std::size_t>(1, word.size() / 3) + 1;
  std::optional<std::string> found;
  for (const std::string& name : names) {
    const std::size_t changes = distanceBetween(word, name);
    if (changes >= fewest) continue;
    fewest = changes;
    found = name;
  }
  return found;
}

std::string hint(std::string_view word, const std::vector<std::string>& names) {
  const std::optional<std::string> name = nearest(word, names);
  return name ? "; did you mean " + *name + "?" : "";
}

}  // namespace volorn::ctl
