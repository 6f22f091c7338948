#pragma once

#include <string>
#include <vector>

#include "volornctl/kept/figures.h"
#include "volornctl/kept/key_meaning.h"

namespace volorn::ctl {

// A line over the days, as the path of an SVG so many units wide and high. It breaks where a day has no
// point. Of the points that fall on one unit of the width those are drawn that reach farthest: the first, the
// least, the greatest and the last.
std::string linePath(const std::vector<Point>& points, const Days& days, const Axis& axis, int width,
                     int height);

// A figure of HTML: the key's line over the days, its least, mean and greatest reading, and a table of these
// by year, month or day for who cannot see the line. There must be a point.
std::string chartFigure(const KeyMeaning& meaning, const KeyPoints& key, const Days& days);

}  // namespace volorn::ctl
