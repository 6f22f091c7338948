#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "volornctl/text/graph.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/nearest.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(TimeTextTest, DatesInUtc) {
  const std::pair<double, std::optional<std::string>> cases[] = {
      {0.0, "1970-01-01T00:00:00Z"},
      {-0.25, "1969-12-31T23:59:59Z"},  // down, not toward zero
      {1795406706.999, "2026-11-23T04:05:06Z"},
      {951782400.0, "2000-02-29T00:00:00Z"},
      {-2203891200.0, "1900-03-01T00:00:00Z"},  // the day after 28 February
      {-62167219200.0, "0000-01-01T00:00:00Z"},
      {-62167219201.0, std::nullopt},
      {253402300799.5, "9999-12-31T23:59:59Z"},
      {253402300800.0, std::nullopt},
      {1e300, std::nullopt},
      {-kInfinity, std::nullopt},
      {std::nan(""), std::nullopt},
  };
  for (const auto& [seconds, expected] : cases) {
    const Date date = Date::fromSecondsSince1970(seconds);
    EXPECT_EQ(rfc3339(date), expected) << seconds;
    EXPECT_EQ(rfc3339Milliseconds(date).has_value(), expected.has_value()) << seconds;
    EXPECT_EQ(jsonTime(date), expected ? Json(*expected) : Json()) << seconds;
  }
  EXPECT_EQ(jsonTime(std::nullopt), Json());
  EXPECT_EQ(jsonMilliseconds(Date::fromSecondsSince1970(1795406706.123)), "2026-11-23T04:05:06.123Z");
  EXPECT_EQ(jsonMilliseconds(Date::fromSecondsSince1970(-0.25)), "1969-12-31T23:59:59.750Z");
}

TEST(TimeTextTest, LocalTimeIsShownWhereItDiffersAndCanBeShown) {
  const auto at = [](double seconds, ZoneOffset zone) {
    const Date date = Date::fromSecondsSince1970(seconds);
    return timeAround(date, {.now = date, .time_zone = [=](std::int64_t) { return zone; }});
  };
  EXPECT_EQ(at(86399, {3600, "CET"}), "1970-01-01 23:59:59 UTC (1970-01-02 00:59:59 CET), now");
  EXPECT_EQ(at(0, {-12600, "NST"}), "1970-01-01 00:00:00 UTC (1969-12-31 20:30:00 NST), now");
  EXPECT_EQ(at(0, {0, "UTC"}), "1970-01-01 00:00:00 UTC, now");
  EXPECT_EQ(at(253402300799, {3600, "CET"}), "9999-12-31 23:59:59 UTC, now");
  EXPECT_EQ(at(1e12, {3600, "CET"}), "beyond the calendar");
}

TEST(TimeTextTest, ALocalDayBeginsWhenItsClockDoes) {
  const struct {
    std::int64_t change, before, after;  // of the clock, in seconds since 1970 and hours east
    const char* text;
    std::int64_t expected;
  } cases[] = {
      {1772946000, -5, -4, "2026-03-08", 1772946000},  // has no midnight
      {1772946000, -5, -4, "2026-03-08T01:00:00", 1772946000},
      {1772946000, -5, -4, "2026-03-08T12:00:00", 1772985600},
      {1793484000, 3, 2, "2026-11-01", 1793480400},  // has two
  };
  for (const auto& c : cases) {
    const auto zone = [&](std::int64_t at) {
      return ZoneOffset{3600 * (at < c.change ? c.before : c.after), ""};
    };
    EXPECT_EQ(dateOf(c.text, zone)->secondsSince1970(), static_cast<double>(c.expected)) << c.text;
  }
}

TEST(TimeTextTest, Distances) {
  const std::pair<double, const char*> cases[] = {
      {0.9, "now"},
      {-0.9, "now"},
      {1.0, "in 1 s"},
      {-59.9, "59 s ago"},
      {60.0, "in 1 min"},
      {-61.0, "1 min 1 s ago"},
      {48059.0, "in 13 h 20 min"},
      {-86400.0 - 3599.0, "1 d ago"},
      {604799.0, "in 6 d 23 h"},
      {kInfinity, "never"},
      {-1e300, "long ago"},
  };
  const Date now = Date::fromSecondsSince1970(1e9);
  for (const auto& [seconds, expected] : cases) {
    EXPECT_EQ(distance(Date::fromSecondsSince1970(1e9 + seconds), now), expected) << seconds;
  }
}

TEST(NumberTextTest, SizesHaveTheirUnit) {
  const std::pair<double, const char*> cases[] = {
      {0, "0 B"},           {1023, "1023 B"},
      {-1024, "-1.0 KiB"},  {1024 * 1024 - 1, "1.0 MiB"},  // never 1024.0 KiB
      {1023.6, "1.0 KiB"},  {0x1.8p30, "1.5 GiB"},
      {0x1p64, "16.0 EiB"}, {-0x1p73, "-8192.0 EiB"},
  };
  for (const auto& [bytes, expected] : cases) EXPECT_EQ(sizeText(bytes), expected) << bytes;
  const std::pair<double, const char*> short_cases[] = {{0, "0"},
                                                        {1023, "1023"},
                                                        {1024, "1.0K"},
                                                        {99.94 * 1024, "99.9K"},
                                                        {99.96 * 1024, "100K"},
                                                        {0x1p20 - 1, "1.0M"},
                                                        {1023 * 1024, "1023K"},
                                                        {0x1p64, "16.0E"}};
  for (const auto& [bytes, expected] : short_cases) EXPECT_EQ(shortSizeText(bytes), expected) << bytes;
}

TEST(NearestTest, NamesOfMisspeltWords) {
  const std::vector<std::string> names = {"cpu", "private", "resident", "major-faults"};
  const std::pair<const char*, const char*> cases[] = {
      {"cup", "cpu"},  {"pivate", "private"}, {"residents", "resident"}, {"mayor-fault", "major-faults"},
      {"xyz", "none"}, {"c", "none"}};
  for (const auto& [word, expected] : cases)
    EXPECT_EQ(nearest(word, names).value_or("none"), expected) << word;
}

TEST(GraphTest, LinesEndAtTheRight) {
  using Values = std::vector<std::optional<double>>;
  EXPECT_EQ(lineGraph(Values{0, 50, std::nullopt, 100}, 100, 6, true), "  ▁▅ █");
  EXPECT_EQ(lineGraph(Values{9, 1, 2, 4}, 0, 3, false), "-=#");
  EXPECT_EQ(lineGraph(Values{0, 200}, 100, 2, true), "▁█");
}

TEST(TableTest, NothingHostileReachesATerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"(sd-pam) \"q\" é 漢 😀", "(sd-pam) \"q\" é 漢 😀"},
      {"a\nb\x1b[2J\x7f", "a\\u{a}b\\u{1b}[2J\\u{7f}"},
      {std::string("\0", 1), "\\u{0}"},
      {"\\u{a}", "\\\\u{a}"},
      {"\xC2\x9B", "\\u{9b}"},                       // a control beyond ASCII
      {"\xE2\x80\xAE", "\\u{202e}"},                 // turns the direction of writing
      {"\x80\xFFz", "\\x80\\xffz"},                  // stray
      {"\xC3", "\\xc3"},                             // cut off
      {"\xE2\x82z", "\\xe2\\x82z"},                  // cut off in the middle
      {"\xC0\xAF", "\\xc0\\xaf"},                    // longer than needed
      {"\xE0\x80\x8A", "\\xe0\\x80\\x8a"},           // longer than needed
      {"\xED\xA0\x80", "\\xed\\xa0\\x80"},           // a surrogate
      {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // past the last character
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(escaped(text), expected);
}

TEST(TableTest, ColumnsAreAlignedByCharactersAndColourTakesNoRoom) {
  const std::vector<Row> rows = {
      {{.text = "Key", .strong = true},
       {.text = "Value", .strong = true, .right = true},
       {.text = "Reading"}},
      {{.text = "é"}, {.text = "-1", .right = true}, {.text = ""}},
      {{.text = "long\t"}, {.text = "1234567", .right = true}, {.text = "x"}},
      {{.text = "short row"}},
  };
  EXPECT_EQ(table(rows, false),
            "Key          Value  Reading\n"
            "é               -1\n"
            "long\\u{9}  1234567  x\n"
            "short row\n");
  EXPECT_EQ(table({rows.begin(), rows.begin() + 1}, true),
            "\x1b[1mKey\x1b[0m  \x1b[1mValue\x1b[0m  Reading\n");
}

TEST(TableTest, LinesAreCutBetweenCharacters) {
  // One column, two, none and one.
  const std::vector<Row> rows = {{{.text = "é漢e\u0301", .strong = true}, {.text = "ab"}}};
  const std::pair<std::size_t, const char*> cases[] = {
      {0, ""},
      {2, "\x1b[1mé\x1b[0m"},
      {3, "\x1b[1mé漢\x1b[0m"},
      {6, "\x1b[1mé漢e\u0301\x1b[0m"},
      {7, "\x1b[1mé漢e\u0301\x1b[0m  a"},
  };
  for (const auto& [max_columns, expected] : cases) {
    EXPECT_EQ(tableLines(rows, true, max_columns), std::vector<std::string>{expected}) << max_columns;
  }
}

}  // namespace
}  // namespace volorn::ctl
