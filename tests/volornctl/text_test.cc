#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "volornctl/json_text.h"
#include "volornctl/number_text.h"
#include "volornctl/table.h"
#include "volornctl/time_text.h"

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
    EXPECT_EQ(jsonTime(date), expected ? Json(*expected) : Json()) << seconds;
  }
  EXPECT_EQ(jsonTime(std::nullopt), Json());
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
  const std::vector<Row> rows = {{{.text = "é漢", .strong = true}, {.text = "ab"}}};
  const std::pair<std::size_t, const char*> cases[] = {
      {0, ""},
      {1, "\x1b[1mé\x1b[0m"},
      {2, "\x1b[1mé漢\x1b[0m"},
      {4, "\x1b[1mé漢\x1b[0m"},
      {5, "\x1b[1mé漢\x1b[0m  a"},
      {6, "\x1b[1mé漢\x1b[0m  ab"},
  };
  for (const auto& [max_characters, expected] : cases) {
    EXPECT_EQ(tableLines(rows, true, max_characters), std::vector<std::string>{expected}) << max_characters;
  }
}

TEST(JsonTextTest, OneLineOfAsciiWithBadBytesReplaced) {
  Json document;
  document["z"] = "\xFF\x1B\xC2\x9B\xC3\xA9";
  document["a"] = INT64_MIN;
  EXPECT_EQ(jsonLine(document), "{\"z\":\"\\ufffd\\u001b\\u009b\\u00e9\",\"a\":-9223372036854775808}\n");
}

}  // namespace
}  // namespace volorn::ctl
