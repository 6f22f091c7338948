#include "volornctl/summary.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>
#include <sstream>

#include "snapshot/voLornTop.h"

namespace volorn::ctl {
namespace {

// One value of each kind, in the order of a whole summary, and a process whose name would forge a row.
ActivitySummary smallSummary() {
  ActivitySummary process;
  process.insert("Command", "a\n  9\xFF");
  process.insert("pid", std::uint32_t{42});
  process.insert("CPU/%CPU", std::nan(""));
  process.insert("Memory Regions/Count", std::int64_t{7});
  ActivitySummary processes;
  processes.insert("a\n  9\xFF_42", process);
  ActivitySummary summary;
  summary.insert("Processes/Total", std::int32_t{-1});
  summary.insert("Load/1-Minute", 2.0);
  summary.insert("Load/5-Minute", -std::numeric_limits<double>::infinity());
  summary.insert("Physical Memory/Free", std::int64_t{1536});
  summary.insert("Network/Input", std::int64_t{INT64_MAX});
  summary.insert("VM Faults/Pageins", std::uint32_t{UINT32_MAX});
  summary.insert("Swap/Used", std::uint64_t{UINT64_MAX});
  summary.insert("Process Stats", processes);
  return summary;
}

TEST(SummaryTest, JsonShowsEachEntryAsItStands) {
  EXPECT_EQ(summaryJson(smallSummary()),
            R"({"Processes/Total":-1,"Load/1-Minute":2.0,"Load/5-Minute":null,"Physical Memory/Free":1536,)"
            R"("Network/Input":9223372036854775807,"VM Faults/Pageins":4294967295,)"
            R"("Swap/Used":18446744073709551615,"Process Stats":{"a\n  9\ufffd_42":)"
            R"({"Command":"a\n  9\ufffd","pid":42,"CPU/%CPU":null,"Memory Regions/Count":7}}})"
            "\n");
  EXPECT_EQ(summaryJson(ActivitySummary()), "{}\n");
}

TEST(SummaryTest, TableHasGroupsAndARowForEachProcess) {
  const std::string text = summaryTable(smallSummary(), false);
  EXPECT_TRUE(
      text.starts_with("Processes        Total                       -1\n"
                       "Load             1-Minute                  2.00\n"
                       "                 5-Minute                  -inf\n"
                       "Physical Memory  Free                      1536   1.5 KiB\n"
                       "Network          Input      9223372036854775807\n"
                       "VM Faults        Pageins             4294967295\n"
                       "Swap             Used      18446744073709551615  16.0 EiB\n"))
      << text;
  const std::size_t processes = text.find("\n\nPID  CPU %  ");
  ASSERT_NE(processes, std::string::npos) << text;
  const std::string rows = text.substr(text.find('\n', processes + 2) + 1);
  EXPECT_TRUE(rows.starts_with(" 42    nan  ")) << rows;
  EXPECT_TRUE(rows.ends_with("  a\\u{a}  9\\xff\n")) << rows;
}

TEST(SummaryTest, EveryFigureOfAProcessHasItsColumn) {
  const ActivitySummary process = processSummary({}, {}, 1.0);
  ActivitySummary processes;
  processes.insert("_0", process);
  ActivitySummary summary;
  summary.insert("Process Stats", processes);
  const std::string text = summaryTable(summary, false);
  // 17 figures behind the empty name: none of them is an empty cell.
  const std::string row = text.substr(text.find('\n', 1) + 1);
  std::istringstream words(row);
  EXPECT_EQ(std::distance(std::istream_iterator<std::string>(words), {}),
            static_cast<std::ptrdiff_t>(process.entries().size()) - 1)
      << text;
}

}  // namespace
}  // namespace volorn::ctl
