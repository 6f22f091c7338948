#include <gtest/gtest.h>

#include "libtop/libtop.h"

namespace volorn {
namespace {

TEST(Counter64Test, FollowsRawValuesThroughTheirWraps) {
  struct Case {
    std::uint32_t last;
    std::uint32_t raw;
    std::int64_t change;
  };
  constexpr Case kCases[] = {{0xFFFFFFF0, 0x00000010, 0x20},
                             {100, 90, -10},
                             {0, 0x7FFFFFFF, 0x7FFFFFFF},
                             {0, 0x80000000, -0x80000000LL},
                             {7, 7, 0}};
  for (const Case& c : kCases) {
    Counter64 counter = {.total = 1ULL << 40, .last = c.last};
    libtop_i64_update(counter, c.raw);
    EXPECT_EQ(static_cast<std::int64_t>(counter.total) - (1LL << 40), c.change) << c.last << " to " << c.raw;
    EXPECT_EQ(counter.last, c.raw);
  }
  EXPECT_EQ(libtop_i64_init(0, 0x80000000).total, 2147483648U);
  EXPECT_EQ(libtop_i64_init(5, 9).total, 5U);
  EXPECT_EQ(libtop_i64_init(5, 9).last, 9U);
}

}  // namespace
}  // namespace volorn
