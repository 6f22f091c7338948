#include "platform/linux/usage_books.h"

#include <gtest/gtest.h>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr UsageSums kSums = {.usage_ns = 100 * kSecond, .standby_ns = 1000 * kSecond};

// A mark after the one in the books, and what becomes of them.
struct Case {
  const char* what;
  bool was_plugged;
  bool is_plugged;
  std::int64_t awake_ms;
  std::int64_t asleep_ms;
  // Usage and standby that come to kSums, in milliseconds; none for unknown.
  std::optional<std::pair<int, int>> added;
  bool is_kept;
  void (*change)(UsageBooks& books, UsageMark& mark) = [](auto&, auto&) {};
};

void reboot(UsageBooks& /*books*/, UsageMark& mark) {
  mark.boot_id = "another";
  mark.boottime_ns = mark.monotonic_ns = 600 * kSecond;
}

void shutDown(UsageBooks& books, UsageMark& mark) {
  books.is_last = true;
  reboot(books, mark);
}

void shutDownLongAgo(UsageBooks& books, UsageMark& mark) {
  shutDown(books, mark);
  ++mark.boottime_ns;
}

void wasLast(UsageBooks& books, UsageMark& /*mark*/) {
  books.is_last = true;
}

void cannotTell(UsageBooks& /*books*/, UsageMark& mark) {
  mark.plugged_in = {};
}

void couldNotTell(UsageBooks& books, UsageMark& /*mark*/) {
  books.plugged_in = {};
}

void someLost(UsageBooks& /*books*/, UsageMark& mark) {
  mark.some_lost = true;
}

constexpr std::pair<int, int> kNothing = {0, 0};

const Case kCases[] = {
    {"on battery", false, false, 60'000, 0, {{60'000, 0}}, true},
    {"not yet a minute", false, false, 59'999, 0, {{59'999, 0}}, false},
    {"asleep on battery", false, false, 2'000, 9'000, {{2'000, 9'000}}, true},
    {"the clocks are not read at once", false, false, 60'000, 99, {{60'000, 0}}, true},
    {"plugged in", true, true, 60'000, 0, kNothing, false},
    {"asleep while plugged in", true, true, 60'000, 9'000, kNothing, true},
    {"plugged in since", false, true, 3'000, 0, {{3'000, 0}}, true},
    {"pulled since", true, false, 3'000, 0, kNothing, true},
    {"plugged in while asleep", false, true, 3'000, 9'000, {}, true},
    {"pulled while asleep", true, false, 3'000, 9'000, {}, true},
    {"a clock that ran backwards", false, false, -1, 0, {}, true},
    {"another that did", false, false, 1'000, -101, {}, true},
    {"nobody tells of the plug", false, false, 1, 0, {}, true, cannotTell},
    {"nobody told", false, false, 1, 0, {}, true, couldNotTell},
    {"a mark was lost", true, true, 1, 0, {}, true, someLost},
    {"shut down and started", false, true, 1, 0, kNothing, true, shutDown},
    {"cut off on battery", false, false, 1, 0, {}, true, reboot},
    {"cut off while plugged in", true, false, 1, 0, kNothing, true, reboot},
    {"started long before its first mark", false, false, 1, 0, {}, true, shutDownLongAgo},
    {"watched again", false, false, 60'000, 0, {{60'000, 0}}, true, wasLast},
    {"unwatched for long", true, true, 60'001, 0, {}, true, wasLast},
    {"changed while unwatched", true, false, 1, 0, {}, true, wasLast},
};

TEST(UsageBooksTest, AMarkAfterAnother) {
  for (const auto& [what, was_plugged, is_plugged, awake_ms, asleep_ms, added, is_kept, change] : kCases) {
    SCOPED_TRACE(what);
    UsageBooks books{.boot_id = "boot",
                     .monotonic_ns = kSecond,
                     .boottime_ns = 2 * kSecond,
                     .plugged_in = was_plugged,
                     .fully_charged_once = true,
                     .sums = kSums};
    UsageMark mark{.boot_id = "boot",
                   .monotonic_ns = kSecond + awake_ms * 1'000'000,
                   .boottime_ns = 2 * kSecond + (awake_ms + asleep_ms) * 1'000'000,
                   .plugged_in = is_plugged};
    change(books, mark);
    std::optional<UsageSums> sums;
    if (added) {
      sums = kSums;
      sums->usage_ns += added->first * 1'000'000LL;
      sums->standby_ns += added->second * 1'000'000LL;
    }
    const UsageBooks next = withMark(books, mark);
    EXPECT_EQ(next.sums, sums);
    EXPECT_EQ(isWorthKeeping(books, next), is_kept);
    // Who only looks knows as much as long as nothing has changed.
    const bool fits = books.boot_id == mark.boot_id && was_plugged == is_plugged;
    EXPECT_EQ(sumsNow(books, mark), fits ? sums : std::nullopt);
    // A full charge begins them anew, whatever was before.
    mark.is_full = true;
    EXPECT_EQ(withMark(books, mark).sums, UsageSums{});
    EXPECT_TRUE(isWorthKeeping(books, withMark(books, mark)));
  }
}

TEST(UsageBooksTest, AsText) {
  for (const char* text : {"3600 7200 0 1 1 60 1152921504606846976 8e46a9b2", "0 0 -1 0 0 -1 -1 8e46a9b2"}) {
    const auto books = parseUsageBooks(text);
    ASSERT_TRUE(books) << text;
    EXPECT_EQ(textOf(*books), text);
  }
  for (const char* text : {"", "8e46a9b2", "1 2 0 0 1 60 8e46a9b2", "-1 2 0 0 1 60 60 8e46a9b2",
                           "1 2 0 0 1 60 1152921504606846977 8e46a9b2"}) {
    EXPECT_EQ(parseUsageBooks(text), std::nullopt) << text;
  }
}

TEST(UsageBooksTest, UnknownUntilAFullCharge) {
  UsageMark mark{.boot_id = "boot", .plugged_in = true};
  UsageBooks books = withMark({}, mark);
  EXPECT_EQ(books, (UsageBooks{.boot_id = "boot", .plugged_in = true}));
  EXPECT_TRUE(isWorthKeeping({}, books));
  mark.monotonic_ns = mark.boottime_ns = 3600 * kSecond;
  mark.plugged_in = false;
  books = withMark(books, mark);
  EXPECT_EQ(books.sums, std::nullopt);
  mark.monotonic_ns = mark.boottime_ns = 7200 * kSecond;
  EXPECT_FALSE(isWorthKeeping(books, withMark(books, mark)));
  mark.is_full = true;
  books = withMark(books, mark);
  EXPECT_TRUE(books.fully_charged_once);
  EXPECT_EQ(books.sums, UsageSums{});
}

}  // namespace
}  // namespace volorn::linux_host
