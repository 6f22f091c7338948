#include "volornctl/kept/verdict.h"

#include <gtest/gtest.h>

#include "tests/temporary_folder.h"

namespace volorn::ctl {
namespace {

constexpr double kNow = 1795406706.0;  // 2026-11-23 04:05:06 UTC

Date fromNow(double seconds) {
  return Date::fromSecondsSince1970(kNow + seconds);
}

TEST(VerdictTest, TheGravestThatHoldsUnlessAGraverOneCannotBeTold) {
  constexpr std::optional<bool> kUnknown;
  struct Case {
    Signs signs;
    std::optional<Verdict> verdict;
    int status;
  };
  const Case cases[] = {
      {{false, false, false, false, false, false}, Verdict::kFine, 0},
      {{false, false, false, false, false, true}, Verdict::kOverdue, 1},
      {{false, false, false, false, true, true}, Verdict::kClock, 1},
      {{false, false, false, true, true, kUnknown}, Verdict::kFull, 1},
      {{false, false, true, kUnknown, true, true}, Verdict::kNever, 2},
      {{false, true, true, true, true, true}, Verdict::kUnarmed, 2},
      {{true, kUnknown, true, true, true, true}, Verdict::kDamaged, 2},
      {{false, kUnknown, true, true, true, true}, std::nullopt, 3},
      {{false, false, false, false, false, kUnknown}, std::nullopt, 3},
  };
  for (const Case& c : cases) {
    const auto verdict = verdictOf(c.signs);
    EXPECT_EQ(verdict, c.verdict) << c.status;
    EXPECT_EQ(checkStatus(verdict), c.status);
  }
  EXPECT_FALSE(isOverdue(fromNow(-49 * 3600), fromNow(0)));
  EXPECT_TRUE(isOverdue(fromNow(-49 * 3600 - 1), fromNow(0)));
  EXPECT_FALSE(isTooFarAhead(fromNow(2 * 86400), fromNow(0)));
  EXPECT_TRUE(isTooFarAhead(fromNow(2 * 86400 + 1), fromNow(0)));
}

TEST(VerdictTest, AFileSetAsideCountsFor30Days) {
  const std::pair<const char*, bool> cases[] = {
      {"volorn.db.damaged-20261122T040506Z", true},
      {"volorn.db.damaged-20261122T040506Z-2-journal", true},
      {"volorn.db.damaged-20261024T040506Z", true},
      {"volorn.db.damaged-20261024T040505Z", false},
      {"volorn.db.damaged-20261", false},
      {"volorn.db.damaged-2026-11-22T04:05:06Z", false},
      {"volorn.db", false},
  };
  for (const auto& [name, is_lately] : cases) {
    const TemporaryFolder folder;
    folder.write(name, "");
    EXPECT_EQ(isSetAsideLately(folder.path(), fromNow(0)), is_lately) << name;
    EXPECT_EQ(isSetAsideLately((folder / "missing").string(), fromNow(0)), false);
    EXPECT_EQ(isSetAsideLately((folder / name).string(), fromNow(0)), std::nullopt);
  }
}

TEST(VerdictTest, TheTimerStandsAtTheRow) {
  const TemporaryFolder folder;
  EXPECT_EQ(isUnarmed(folder.path(), fromNow(3600), fromNow(0)), false);  // no systemd
  folder.write("systemd/system/a", "");
  EXPECT_EQ(isUnarmed(folder.path(), fromNow(3600), fromNow(0)), true);
  struct Case {
    const char* timer;
    std::optional<Date> window_start;
    bool is_unarmed;
  };
  const Case cases[] = {
      {"[Timer]\nOnCalendar=2026-11-23 05:05:06.75 UTC\n", fromNow(3600.75), false},
      {"[Timer]\nOnCalendar=2026-11-23 05:05:10 UTC\n", fromNow(3600), true},
      {"[Timer]\nOnCalendar=2026-11-24 00:00:00 UTC\n", fromNow(-60), false},      // open
      {"[Timer]\nOnCalendar=2026-11-24 00:00:00 UTC\n", fromNow(900'000), false},  // too far ahead
      {"[Timer]\nOnCalendar=2026-11-24 00:00:00 UTC\n", std::nullopt, false},
      {"[Timer]\nOnCalendar=2026-11-22 00:00:00 UTC\n", std::nullopt, true},
      {"[Timer]\nOnCalendar=daily\n", std::nullopt, true},
      {"", std::nullopt, true},
  };
  for (const Case& c : cases) {
    folder.write("systemd/transient/volorn.timer", c.timer);
    EXPECT_EQ(isUnarmed(folder.path(), c.window_start, fromNow(0)), c.is_unarmed) << c.timer;
  }
}

}  // namespace
}  // namespace volorn::ctl
