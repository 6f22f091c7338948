#include "platform/linux/regions/parse_smaps.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/linux/regions/mapping.h"

namespace volorn::linux_host {
namespace {

using namespace std::string_view_literals;

// Taken from running processes, names made worse.
constexpr std::string_view kText =
    R"(7f3a1c628000-7f3a1c77d000 r-xp 00026000 fe:1a 11536     /usr/lib/libc.so.6 (deleted)
Size:               1364 kB
KernelPageSize:        4 kB
Rss:                1136 kB
Shared_Clean:       1132 kB
Shared_Dirty:          8 kB
Private_Clean:         4 kB
Private_Dirty:        12 kB
Private_Hugetlb:    2048 kB
Swap:                  0 kB
SwapPss:               4 kB
VmFlags: rd ex mr mw me
7f3a1c800000-7f3a1c801000 -w-s 00001000 00:05 4294967297     /tmp/a\0127f-8f r--p Swap: 4 kB (deleted)
Private_Dirty:         4 kB
Swap:                  4 kB
7f3a1c801000-7f3a1c802000 rw-p 00000000 00:00 0 
7ffff1200000-7ffff1221000 ---p 00000000 00:00 0          [anon:Private_Dirty: 4 kB]
Private_Dirty:        64 kB
)";

std::string describe(const std::vector<Mapping>& mappings) {
  std::ostringstream text;
  text << std::hex;
  for (const Mapping& mapping : mappings) {
    text << mapping.start << '-' << mapping.end << ' ' << mapping.protection
         << (mapping.is_shared ? 's' : 'p') << ' ' << mapping.file_offset_bytes << ' ' << mapping.file.device
         << ':' << mapping.file.inode << ' ' << mapping.private_pages << '+' << mapping.shared_pages
         << (mapping.is_swapped ? " swapped\n" : "\n");
  }
  return text.str();
}

constexpr std::string_view kMappings =
    "7f3a1c628000-7f3a1c77d000 5p 26000 fe0000001a:2d10 4+11d\n"
    "7f3a1c800000-7f3a1c801000 2s 1000 5:100000001 1+0 swapped\n"
    "7f3a1c801000-7f3a1c802000 3p 0 0:0 0+0\n"
    "7ffff1200000-7ffff1221000 0p 0 0:0 10+0\n";

TEST(ParseSmapsTest, ReadsMappingsAndTheirPagesInPiecesOfAnyLength) {
  for (std::size_t piece = 0; piece <= kText.size(); ++piece) {
    std::vector<Mapping> mappings;
    const std::optional<std::size_t> taken = parseSmaps(kText.substr(0, piece), 4096, mappings);
    ASSERT_TRUE(taken);
    ASSERT_TRUE(parseSmaps(kText.substr(*taken), 4096, mappings));
    ASSERT_EQ(describe(mappings), kMappings) << piece;
  }
}

TEST(ParseSmapsTest, TakesFieldsOfAnyWidthAndPagesOfAnySize) {
  std::vector<Mapping> mappings;
  // Two lines that are together as long as one mostly is.
  constexpr std::string_view kNarrow =
      "1000-9000 rw-p 0 00:00 0 \nXy: 4 kB\nShared_Clean: 8 kB\nSwap: 4 kB\n";
  ASSERT_TRUE(parseSmaps(kNarrow, 4096, mappings));
  ASSERT_TRUE(parseSmaps("10000-30000 rw-p 0 00:00 0 \nPrivate_Dirty: 128 kB\n", 65536, mappings));
  EXPECT_EQ(describe(mappings), "1000-9000 3p 0 0:0 0+2 swapped\n10000-30000 3p 0 0:0 2+0\n");
}

TEST(ParseSmapsTest, RefusesWhatIsNoSuchText) {
  for (const std::string_view text :
       {"Swap: 4 kB\n"sv, "1000-2000 rw-p 0 00:00 0 \nSwap:\n"sv,
        "1000-2000 rw-p 0 00:00 0 \nPrivate_Dirty: 18446744073709551616 kB\n"sv,
        "2000-1000 rw-p 0 00:00 0 \n"sv, "1000-1000 rw-p 0 00:00 0 \n"sv, "1000-2000 rw-p 0 00:00 0x \n"sv,
        "1000-2000 rw\n"sv, "1000-2000 rw-p 0 0000 0 \n"sv, "-1000-2000 rw-p 0 00:00 0 \n"sv, "\n"sv,
        "\0\n"sv}) {
    std::vector<Mapping> mappings;
    EXPECT_EQ(parseSmaps(text, 4096, mappings), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace volorn::linux_host
