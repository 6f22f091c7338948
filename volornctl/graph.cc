#include "volornctl/graph.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace volorn::ctl {
namespace {

constexpr std::array kLevels = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kEighths = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
constexpr const char* kFull = "█";

// As doubles, so that no difference overflows.
struct Range {
  double least = std::numeric_limits<double>::infinity();
  double most = -std::numeric_limits<double>::infinity();

  void take(double value) {
    least = std::min(least, value);
    most = std::max(most, value);
  }

  // From 0 for the least to 1 for the greatest; 0 where all are equal.
  double share(double value) const { return most > least ? (value - least) / (most - least) : 0; }
};

// None where every value is missing.
std::optional<double> mean(Series::const_iterator begin, Series::const_iterator end) {
  double sum = 0;
  int count = 0;
  for (auto value = begin; value != end; ++value) {
    if (!*value) continue;
    sum += static_cast<double>(**value);
    ++count;
  }
  return count == 0 ? std::nullopt : std::optional(sum / count);
}

}  // namespace

std::string graph(const Series& series, std::size_t max_columns) {
  const std::size_t columns = std::min(series.size(), max_columns);
  std::vector<std::optional<double>> points;
  Range range;
  for (std::size_t i = 0; i < columns; ++i) {
    const auto at = [&](std::size_t column) {
      return series.begin() + static_cast<std::ptrdiff_t>(column * series.size() / columns);
    };
    points.push_back(mean(at(i), at(i + 1)));
    if (points.back()) range.take(*points.back());
  }
  std::string text;
  if (range.most < range.least) return text;
  for (const std::optional<double>& point : points) {
    constexpr auto kHighest = static_cast<double>(kLevels.size() - 1);
    text += point ? kLevels[static_cast<std::size_t>(std::lround(range.share(*point) * kHighest))] : " ";
  }
  return text;
}

std::vector<std::string> bars(const Series& series, std::size_t max_columns) {
  Range range;
  range.take(0);
  for (const auto& value : series) {
    if (value) range.take(static_cast<double>(*value));
  }
  std::vector<std::string> texts;
  for (const auto& value : series) {
    const double share = value ? range.share(static_cast<double>(*value)) : 0;
    const auto eighths = static_cast<std::size_t>(std::lround(share * 8 * static_cast<double>(max_columns)));
    std::string& text = texts.emplace_back();
    for (std::size_t i = 0; i < eighths / 8; ++i) text += kFull;
    text += kEighths[eighths % 8];
  }
  return texts;
}

}  // namespace volorn::ctl
