#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace volorn::ctl {

// What a graph shows from its lowest to its highest; as doubles, so that no difference overflows.
struct Axis {
  double low = 0;
  double high = 0;

  // From 0 for the lowest to 1 for the highest, which what lies beyond them counts as; 0 where both are
  // equal.
  double share(double value) const;
};

// Values side by side, those that are missing among them.
using Series = std::vector<std::optional<double>>;

// A character for each value: a block from the lowest to a full one, or a blank for what is missing. Without
// `unicode` in ASCII alone.
std::string graph(const Series& series, const Axis& axis, bool unicode = true);

// A bar for each value, in eighths of a character, up to `max_columns` characters for the axis's highest.
std::vector<std::string> bars(const Series& series, const Axis& axis, std::size_t max_columns);

// The last so many values, at the right end, between 0 and `full`, which stands for the greatest of them
// where it is 0.
std::string lineGraph(const Series& series, double full, std::size_t columns, bool unicode);

}  // namespace volorn::ctl
