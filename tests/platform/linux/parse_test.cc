#include <gtest/gtest.h>

#include <cstdint>

#include "platform/linux/parse_meminfo.h"
#include "platform/linux/parse_number.h"

namespace volorn::linux_host {
namespace {

using namespace std::string_view_literals;

TEST(ParseTest, AnIntegerIsAllOfTheTextOrNone) {
  const std::pair<std::string_view, std::int64_t> numbers[] = {
      {"47520000\n", 47520000},
      {"+7", 7},
      {"-00040 \r\n", -40},
      {"9223372036854775807", INT64_MAX},
      {"-9223372036854775808", INT64_MIN},
  };
  for (const auto& [text, number] : numbers) EXPECT_EQ(parseInteger(text), number) << text;
  // Parted by commas.
  std::string_view no_numbers =
      ", \n,-,+-7, 7,7 7,7\0,\0007,0x7,7.0,9223372036854775808,-9223372036854775809,"sv;
  for (std::size_t comma; (comma = no_numbers.find(',')) != no_numbers.npos;) {
    EXPECT_EQ(parseInteger(no_numbers.substr(0, comma)), std::nullopt) << no_numbers;
    no_numbers.remove_prefix(comma + 1);
  }
}

TEST(ParseTest, MemoryFieldsAreFoundByTheirWholeName) {
  using Kib = std::optional<std::uint64_t>;
  const struct {
    std::string_view text;
    Kib total_kib, available_kib;
  } rows[] = {
      {"MemTotal:        4030780 kB\nMemFree: 1 kB\nMemAvailable:    3612296 kB\n", 4030780, 3612296},
      {"MemAvailable: 0 kB\nMemTotal: 18446744073709551615 kB", UINT64_MAX, 0},
      {"MemTotal: 18446744073709551616 kB\nMemAvailable: 5 kB\n", Kib(), 5},
      {"HugeMemTotal: 5 kB\nMemTotalX: 5 kB\nMemTotal 5 kB\n", Kib(), Kib()},
      {"MemTotal: -5 kB\nMemAvailable: 5\n", Kib(), Kib()},
      {"MemTotal: 5 kB\0\nMemAvailable: \n"sv, Kib(), Kib()},
      {"", Kib(), Kib()},
  };
  for (const auto& [text, total_kib, available_kib] : rows) {
    const MemoryInfo info = parseMemoryInfo(text);
    EXPECT_EQ(info.total_kib, total_kib) << text;
    EXPECT_EQ(info.available_kib, available_kib) << text;
  }
}

}  // namespace
}  // namespace volorn::linux_host
