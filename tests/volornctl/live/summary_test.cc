#include "volornctl/live/summary.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

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

TEST(SummaryTest, TableLeavesOutWhatTakesTwoSamples) {
  EXPECT_EQ(summaryTable(smallSummary(), false),
            "Processes        Total                       -1\n"
            "Load             1-Minute                  2.00\n"
            "                 5-Minute                  -inf\n"
            "Physical Memory  Free                      1536   1.5 KiB\n"
            "Swap             Used      18446744073709551615  16.0 EiB\n"
            "\n"
            "PID  Threads  Ports  Regions  Private  Shared  Resident  Virtual  Command\n"
            " 42                        7                                      a\\u{a}  9\\xff\n"
            "\n"
            "Rates and shares of processors take two samples: volornctl top has them.\n");
}

}  // namespace
}  // namespace volorn::ctl
