#include "volornctl/history.h"

#include <gtest/gtest.h>

#include "snapshot/snapshot_keys.h"
#include "volornctl/graph.h"

namespace volorn::ctl {
namespace {

constexpr std::int64_t kLeast = INT64_MIN;
constexpr std::int64_t kMost = INT64_MAX;

TEST(GraphTest, ABlockForEachValueOrForNeighbours) {
  struct Case {
    Series series;
    std::size_t max_columns;
    const char* expected;
  };
  const Case cases[] = {
      {{0, 1, 2, 3, 4, 5, 6, 7}, 80, "▁▂▃▄▅▆▇█"},
      {{-5, std::nullopt, 9, std::nullopt}, 4, "▁ █ "},
      {{7, 7}, 4, "▁▁"},
      {{kLeast, 0, kMost}, 3, "▁▅█"},
      {{0, 2, 8, 10, 4, std::nullopt}, 3, "▁█▄"},  // means of 1, 9 and 4
      {{0, 10, 20}, 2, "▁█"},
      {{std::nullopt, std::nullopt}, 2, ""},
      {{1, 2}, 0, ""},
      {{}, 80, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(graph(c.series, c.max_columns), c.expected);
}

TEST(GraphTest, BarsBeginAtZeroOrBelow) {
  using Bars = std::vector<std::string>;
  EXPECT_EQ(bars({16, 1, std::nullopt, 0, 9}, 2), (Bars{"██", "▏", "", "", "█▏"}));
  EXPECT_EQ(bars({-8, 0, 8}, 2), (Bars{"", "█", "██"}));
  EXPECT_EQ(bars({kLeast, kMost}, 1), (Bars{"", "█"}));
  EXPECT_EQ(bars({0, 1}, 0), (Bars{"", ""}));
}

linux_host::StoredSnapshot snapshot(int day, std::vector<std::pair<std::string, std::int64_t>> metrics) {
  return {.taken_at = Date::fromSecondsSince1970(1795406706.0 + day * 86400), .metrics = std::move(metrics)};
}

const std::string kUsage(snapshot_key::kUsage);
const std::string kCharged(snapshot_key::kCharged);

TEST(HistoryTest, KeysHaveAGraphAndTheDaysThatFit) {
  const History history = {snapshot(0, {{kUsage, -100}, {"old\n", 1}}),
                           snapshot(1, {{kUsage, 500}, {kCharged, 5000}}),
                           snapshot(2, {{kUsage, 4000}, {kCharged, 10000}})};
  const std::string names[] = {"Key                   ", "battery.usageSecs100x ", "battery.chargedPct100x",
                               "old\\u{a}              "};
  EXPECT_EQ(historyOfKeys(history, false, 80),
            names[0] + "  3 days      11-23    11-24     11-25\n" +  //
                names[1] + "   ▁█     not known   5.00 s   40.00 s\n" + names[2] +
                "   ▁█                50.00 %  100.00 %\n" + names[3] + "  ▁               1\n");
  EXPECT_EQ(historyOfKeys(history, false, 51), names[0] + "  3 days    11-24     11-25\n" +  //
                                                   names[1] + "   ▁█      5.00 s   40.00 s\n" + names[2] +
                                                   "   ▁█     50.00 %  100.00 %\n" + names[3] + "  ▁\n");
  EXPECT_EQ(historyOfKeys(history, false, 26), names[0] + "  3\n" + names[1] + "   ▁\n" + names[2] +
                                                   "   ▁\n" + "old\\u{a}" + std::string(16, ' ') + "▁\n");
  EXPECT_EQ(historyOfKeys(history, false, 3), "Key\nbat\nbat\nold\n");
}

TEST(HistoryTest, DaysHaveBars) {
  const History history = {snapshot(0, {{kCharged, -10000}}), snapshot(1, {{kCharged, 5000}}),
                           snapshot(2, {{kCharged, 10000}})};
  EXPECT_EQ(historyOfDays(history, false, 49),
            "Taken at               Value  Reading    battery.\n"
            "2026-11-23T04:05:06Z  -10000  not known\n"
            "2026-11-24T04:05:06Z    5000  50.00 %    ████\n"
            "2026-11-25T04:05:06Z   10000  100.00 %   ████████\n");
  EXPECT_EQ(historyOfDays(history, true, 8), "\x1b[1mTaken at\x1b[0m\n2026-11-\n2026-11-\n2026-11-\n");
}

}  // namespace
}  // namespace volorn::ctl
