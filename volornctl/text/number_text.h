#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace volorn::ctl {

// With as many digits behind the point: "100.0"; "inf", "nan".
std::string decimalText(double value, int digits);

// With its point so many digits from the end: 1234 with two is "12.34".
std::string scaledText(std::int64_t value, std::size_t digits);

// In the largest unit of which there is at least one: "0 B", "1023 B", "1.5 MiB", "-2.0 GiB".
std::string sizeText(double bytes);

// The same in five columns at most: "0", "1023", "1.5M", "24.3M", "1023G". Not for negative sizes.
std::string shortSizeText(double bytes);

}  // namespace volorn::ctl
