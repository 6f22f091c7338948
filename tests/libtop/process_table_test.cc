#include "libtop/process_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "libtop/libtop.h"

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

class ProcessTableTest : public testing::TestWithParam<int> {};

// Few different pids fill and empty the table often; many build deep trees.
TEST_P(ProcessTableTest, IsAnOrderedMap) {
  std::mt19937 random(static_cast<std::mt19937::result_type>(GetParam()));
  std::uniform_int_distribution<std::int32_t> some_pid(-GetParam(), GetParam());
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
    ASSERT_TRUE(table.isValid()) << "step " << step;
    ASSERT_EQ(contentsOf(table), expected) << "step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(PidRanges, ProcessTableTest, testing::Values(2, 20, 200));

TEST(ProcessTableDeathTest, ComparisonNeedsTwoRecords) {
  const ProcessInfo pinfo = {};
  EXPECT_DEATH(libtop_p_pinfo_pid_comp(nullptr, &pinfo),
               "libtop_p_pinfo_pid_comp: libtop:2312: .*: a != NULL");
  EXPECT_DEATH(libtop_p_pinfo_pid_comp(&pinfo, nullptr),
               "libtop_p_pinfo_pid_comp: libtop:2313: .*: b != NULL");
}

}  // namespace
}  // namespace volorn
