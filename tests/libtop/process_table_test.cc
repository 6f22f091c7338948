#include "libtop/process_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "libtop/libtop.h"
#include "tests/libtop/tree_rules.h"

namespace volorn {
namespace {

// What the table holds, in order; by address too, since records must not move.
std::map<std::int32_t, ProcessInfo*> contentsOf(const ProcessTable& table) {
  std::map<std::int32_t, ProcessInfo*> contents;
  for (ProcessInfo* pinfo = table.first(); pinfo; pinfo = table.next(pinfo)) {
    contents.emplace(pidOf(pinfo->psamp), pinfo);
  }
  return contents;
}

void useAsAnOrderedMap(std::int32_t greatest_pid) {
  std::mt19937 random(static_cast<std::mt19937::result_type>(greatest_pid));
  std::uniform_int_distribution<std::int32_t> some_pid(-greatest_pid, greatest_pid);
  ProcessTable table;
  std::map<std::int32_t, ProcessInfo*> expected;
  for (int step = 0; step < 3000; ++step) {
    const std::int32_t pid = some_pid(random);
    ProcessInfo* found = table.find(pid);
    const auto known = expected.find(pid);
    ASSERT_EQ(found, known == expected.end() ? nullptr : known->second);
    if (found) {
      table.erase(found);
      expected.erase(known);
    } else {
      expected.emplace(pid, table.insert(pid));
    }
    ASSERT_TRUE(isRedBlackTree(table)) << "step " << step;
    ASSERT_EQ(contentsOf(table), expected) << "step " << step;
  }
}

// Few different pids fill and empty the table often; many build deep trees.
TEST(ProcessTableTest, IsAnOrderedMap) {
  for (const std::int32_t greatest_pid : {2, 20, 200}) useAsAnOrderedMap(greatest_pid);
}

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
