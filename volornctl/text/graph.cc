#include "volornctl/text/graph.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace volorn::ctl {
namespace {

constexpr std::array kLevels = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kEighths = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
constexpr std::array kPlainLevels = {"_", ".", "-", ":", "=", "+", "*", "#"};
constexpr const char* kFull = "█";

}  // namespace

double Axis::share(double value) const {
  return high > low ? std::clamp((value - low) / (high - low), 0.0, 1.0) : 0;
}

std::string graph(const Series& series, const Axis& axis, bool unicode) {
  const auto& levels = unicode ? kLevels : kPlainLevels;
  constexpr auto kHighest = static_cast<double>(kLevels.size() - 1);
  std::string text;
  for (const std::optional<double>& value : series) {
    text += value ? levels[static_cast<std::size_t>(std::lround(axis.share(*value) * kHighest))] : " ";
  }
  return text;
}

std::vector<std::string> bars(const Series& series, const Axis& axis, std::size_t max_columns) {
  std::vector<std::string> texts;
  for (const auto& value : series) {
    const double share = value ? axis.share(*value) : 0;
    const auto eighths = static_cast<std::size_t>(std::lround(share * 8 * static_cast<double>(max_columns)));
    std::string& text = texts.emplace_back();
    for (std::size_t i = 0; i < eighths / 8; ++i) text += kFull;
    text += kEighths[eighths % 8];
  }
  return texts;
}

std::string lineGraph(const Series& series, double full, std::size_t columns, bool unicode) {
  const std::size_t left_out = series.size() - std::min(columns, series.size());
  const Series shown(series.begin() + static_cast<std::ptrdiff_t>(left_out), series.end());
  Axis axis{.low = 0, .high = full};
  for (auto value = shown.begin(); full <= 0 && value != shown.end(); ++value) {
    axis.high = std::max(axis.high, value->value_or(0));
  }
  return std::string(columns - shown.size(), ' ') + graph(shown, axis, unicode);
}

}  // namespace volorn::ctl
