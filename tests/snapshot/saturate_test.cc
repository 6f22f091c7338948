#include "snapshot/saturate.h"

#include <gtest/gtest.h>

#include <cmath>

namespace volorn {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

template <typename Integer>
struct Row {
  double value;
  Integer expected;
};

template <typename Integer, std::size_t N>
void expectRows(const Row<Integer> (&rows)[N]) {
  for (const auto& [value, expected] : rows) EXPECT_EQ(saturateTo<Integer>(value), expected) << value;
}

TEST(SaturateTest, TruncatesTowardZeroAndStaysInRange) {
  expectRows<std::int32_t>({{3333.9, 3333},
                            {-3333.9, -3333},
                            {2147483646.9, 2147483646},
                            {2147483648.0, 2147483647},
                            {-2147483648.9, -2147483647 - 1},
                            {kInfinity, 2147483647},
                            {-kInfinity, -2147483647 - 1},
                            {std::nan(""), 0}});
  expectRows<std::uint32_t>({{-0.9, 0}, {-1.0, 0}, {4294967295.5, 4294967295}, {4294967296.0, 4294967295}});
  // The largest 64-bit number is no double: the next one up is the first that saturates.
  expectRows<std::int64_t>({{9223372036854774784.0, 9223372036854774784},
                            {9223372036854775808.0, INT64_MAX},
                            {-9223372036854775808.0, INT64_MIN},
                            {-kInfinity, INT64_MIN}});
}

}  // namespace
}  // namespace volorn
