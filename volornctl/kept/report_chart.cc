#include "volornctl/kept/report_chart.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "volornctl/text/day_axis.h"
#include "volornctl/text/html_text.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr int kWidth = 720;
constexpr int kHeight = 200;
constexpr std::size_t kMostTicks = 6;  // have room on a phone

using PointIterator = std::vector<Point>::const_iterator;

// The whole number of units from the left.
int columnOf(const Point& point, const Days& days, int width) {
  const double days_in = point.at / 86'400 - static_cast<double>(days.first);
  return std::clamp(static_cast<int>(days_in / static_cast<double>(days.count()) * width), 0, width);
}

// Those of one column that reach farthest, in the order of time.
std::vector<PointIterator> farthest(PointIterator begin, PointIterator end) {
  const auto [least, most] = std::minmax_element(
      begin, end, [](const Point& left, const Point& right) { return left.value < right.value; });
  std::vector<PointIterator> chosen = {begin, least, most, end - 1};
  std::ranges::sort(chosen);
  chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
  return chosen;
}

std::string axisText(const KeyMeaning& meaning, double value) {
  if (meaning.unit == Unit::kTimeOfDay) return value > 0 ? "24:00" : "0:00";
  return figureText(std::string(meaning.key), std::llround(std::clamp(value, -9e18, 9e18)));
}

std::string spreadText(const std::string& key, const Spread& spread) {
  return "least " + figureText(key, spread.least) + ", mean " + meanText(key, spread.mean) + ", most " +
         figureText(key, spread.most);
}

// "2026" of "2026-11-23", or "2026-11".
std::string periodOf(const Point& point, const Days& days) {
  constexpr std::size_t kDaysByDay = 62;
  constexpr std::size_t kDaysByMonth = 3 * 366;
  const std::size_t length = days.count() <= kDaysByDay ? 10 : days.count() <= kDaysByMonth ? 7 : 4;
  return dayText(point.day).value_or("").substr(0, length);
}

std::string tableOfPeriods(const KeyPoints& key, const Days& days) {
  std::string html = "<table>\n<tr>";
  for (const char* heading : {"Time", "Least", "Mean", "Most", "Snapshots"}) {
    html += "<th scope=\"col\">" + std::string(heading) + "</th>";
  }
  html += "</tr>\n";
  for (auto begin = key.points.begin(); begin != key.points.end();) {
    const std::string period = periodOf(*begin, days);
    const auto end = std::find_if(begin, key.points.end(),
                                  [&](const Point& point) { return periodOf(point, days) != period; });
    const Spread spread = spreadOf({begin, end}).value_or(Spread{});
    html += "<tr><th scope=\"row\">" + period + "</th>";
    for (const std::string& text : {figureText(key.key, spread.least), meanText(key.key, spread.mean),
                                    figureText(key.key, spread.most), std::to_string(end - begin)}) {
      html += "<td>" + htmlText(text) + "</td>";
    }
    html += "</tr>\n";
    begin = end;
  }
  return html + "</table>\n";
}

std::string plot(const KeyMeaning& meaning, const KeyPoints& key, const Days& days, const Spread& spread) {
  const Axis axis = axisOf(key.key, spread);
  const std::vector<DayTick> ticks = dayTicks(days.first, days.last, kMostTicks);
  const std::string right = std::to_string(kWidth);
  std::string grid;
  for (const int y : {0, kHeight / 2, kHeight}) grid += "M0 " + std::to_string(y) + "H" + right;
  std::string labels;
  double free_from_percent = 0;
  for (const DayTick& tick : ticks) {
    const auto x =
        static_cast<int>((tick.day - days.first) * kWidth / static_cast<std::int64_t>(days.count()));
    grid += "M" + std::to_string(x) + " 0V" + std::to_string(kHeight);
    // On a phone. At the right end a label stands before its day rather than be cut off, and what would
    // touch its neighbour is left out.
    const double left_percent =
        100 * static_cast<double>(tick.day - days.first) / static_cast<double>(days.count());
    const double width_percent = 3 * static_cast<double>(tick.label.size());
    const double shown_at_percent = std::min(left_percent, 105 - width_percent);
    if (shown_at_percent < free_from_percent) continue;
    free_from_percent = shown_at_percent + width_percent + 1;
    labels += "<span style=\"left:min(" + decimalText(left_percent, 1) + "%,100% + .8rem - " +
              std::to_string(tick.label.size()) + "ch)\">" + htmlText(tick.label) + "</span>";
  }
  return "<div class=\"plot\"><div class=\"y\" aria-hidden=\"true\"><span>" +
         htmlText(axisText(meaning, axis.high)) + "</span><span>" + htmlText(axisText(meaning, axis.low)) +
         "</span></div>\n<svg role=\"img\" aria-label=\"" + htmlText(meaning.label) + ": " +
         htmlText(spreadText(key.key, spread)) + "\" viewBox=\"0 0 " + right + " " + std::to_string(kHeight) +
         "\" preserveAspectRatio=\"none\"><path class=\"grid\" d=\"" + grid +
         "\"/><path class=\"line\" d=\"" + linePath(key.points, days, axis, kWidth, kHeight) +
         "\"/></svg>\n<div class=\"x\" aria-hidden=\"true\">" + labels + "</div></div>\n";
}

}  // namespace

std::string linePath(const std::vector<Point>& points, const Days& days, const Axis& axis, int width,
                     int height) {
  std::string path;
  for (auto begin = points.begin(); begin != points.end();) {
    const bool goes_on = begin != points.begin() && begin->day - (begin - 1)->day <= 1;
    const int column = columnOf(*begin, days, width);
    auto end = begin + 1;
    while (end != points.end() && end->day - (end - 1)->day <= 1 && columnOf(*end, days, width) == column)
      ++end;
    const char* command = goes_on ? "L" : "M";
    for (const PointIterator point : farthest(begin, end)) {
      const double y = height * (1 - axis.share(static_cast<double>(point->value)));
      path += command + std::to_string(column) + " " + std::to_string(std::lround(y));
      command = "L";
    }
    const bool stands_alone =
        !goes_on && end - begin == 1 && (end == points.end() || end->day - begin->day > 1);
    if (stands_alone) path += "h0";  // which round ends make a dot
    begin = end;
  }
  return path;
}

std::string chartFigure(const KeyMeaning& meaning, const KeyPoints& key, const Days& days) {
  const Spread spread = spreadOf(key.points).value_or(Spread{});
  return "<figure>\n<figcaption><h3>" + htmlText(meaning.label) + "</h3><p>" +
         htmlText(spreadText(key.key, spread)) + "</p></figcaption>\n" + plot(meaning, key, days, spread) +
         "<details><summary>In numbers: " + htmlText(meaning.label) + "</summary>\n" +
         tableOfPeriods(key, days) + "</details>\n</figure>\n";
}

}  // namespace volorn::ctl
