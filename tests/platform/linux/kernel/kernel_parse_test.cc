#include <gtest/gtest.h>

#include <string>

#include "platform/linux/kernel/kernel_stack.h"
#include "platform/linux/kernel/parse_mountinfo.h"
#include "platform/linux/kernel/parse_net_dev.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/kernel/parse_process_status.h"
#include "platform/linux/kernel/parse_schedule.h"
#include "platform/linux/kernel/parse_system_stat.h"
#include "platform/linux/kernel/parse_vmstat.h"

namespace volorn::linux_host {
namespace {

constexpr std::string_view kStatTail =
    " S 11205 11204 10922 0 -1 4194368 152 169 7 0 3 5 0 0 20 0 2 0 312853 4595712 499 "
    "18446744073709551615 94390707367936 94390708157341 140729706279024 0 0 0 65536 0 81922 1 0 0 17 1 0 0 0 "
    "0 0 94390708390640 94390708438884 94390775873536 140729706281784 140729706281799 140729706281799 "
    "140729706282986 0\n";

TEST(KernelParseTest, TheNameInStatEndsAtTheLastParenthesis) {
  const std::string_view names[] = {"bash", "((bash process)", ") S 1 1 1 1", "a\n1 (b) R 9", " ",
                                    "",     "\xFF\xFE)("};
  for (const std::string_view name : names) {
    const auto stat = parseProcessStat("11206 (" + std::string(name) + ")" + std::string(kStatTail));
    ASSERT_TRUE(stat) << name;
    EXPECT_EQ(stat->name(), name);
    EXPECT_EQ(stat->state, 'S');
    EXPECT_EQ(stat->parent, 11205);
    EXPECT_EQ(stat->group, 11204);
    EXPECT_EQ(stat->flags, 4194368U);
    EXPECT_EQ(stat->minor_faults, 152U);
    EXPECT_EQ(stat->major_faults, 7U);
    EXPECT_EQ(stat->user_ticks, 3U);
    EXPECT_EQ(stat->system_ticks, 5U);
    EXPECT_EQ(stat->threads, 2U);
    EXPECT_EQ(stat->start_ticks, 312853U);
    EXPECT_EQ(stat->start_code, 94390707367936U);
    EXPECT_EQ(stat->processor, 1);
  }
}

TEST(KernelParseTest, AStatCutAnywhereBeforeItsLastFieldIsNone) {
  const std::string whole = "11206 ((bash) process)" + std::string(kStatTail);
  const std::size_t processor = whole.find(" 17 1 0") + 4;
  for (std::size_t length = 0; length <= processor; ++length) {
    EXPECT_FALSE(parseProcessStat(whole.substr(0, length))) << length;
  }
  std::string no_number = whole;
  no_number.replace(no_number.find("312853"), 6, "31x853");
  EXPECT_FALSE(parseProcessStat(no_number));
}

TEST(KernelParseTest, StatusHasTheTrueUserAndTheMemory) {
  constexpr std::string_view kText =
      "Name:\tVmRSS:\\n 9 kB\nUid:\t1000\t0\t1000\t1000\nVmSize:\t    4488 kB\nVmRSS:\t    2016 kB\n"
      "RssAnon:\t     484 kB\nVmPTE:\t      44 kB\nVmPMD:\t       8 kB\nvoluntary_ctxt_switches:\t5\n"
      "nonvoluntary_ctxt_switches:\t2\n";
  const auto status = parseProcessStatus(kText);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->effective_uid, 0U);
  EXPECT_EQ(status->virtual_bytes, 4488U * 1024);
  EXPECT_EQ(status->resident_bytes, 2016U * 1024);
  EXPECT_EQ(status->anonymous_bytes, 484U * 1024);
  EXPECT_EQ(status->page_table_bytes, 52U * 1024);
  EXPECT_EQ(status->context_switches, 7U);
  EXPECT_EQ(parseProcessStatus("Uid:\t4\t5\t6\t7\n")->effective_uid, 5U);
  for (const auto text : {"", "Name:\tx\n", "Uid:\t4\n", "Uid:\t0\t0\t0\t0\nVmRSS:\t2016\n",
                          "Uid:\t0\t0\t0\t0\nvoluntary_ctxt_switches:\tx\n"}) {
    EXPECT_FALSE(parseProcessStatus(text)) << text;
  }
}

TEST(KernelParseTest, ANameCannotForgeASchedule) {
  const std::string dashes = std::string(67, '-') + "\n";
  const std::string figures =
      "se.exec_start                                :       3128305.086974\n"
      "se.vruntime                                  :           174.943845\n"
      "nr_switches                                  :                    6\n"
      "nr_voluntary_switches                        :                    5\n";
  for (const auto name : {"bash", "x\n------------", "a\nnr_switches:9"}) {
    const auto schedule = parseSchedule(std::string(name) + " (5, #threads: 1)\n" + dashes + figures);
    ASSERT_TRUE(schedule) << name;
    EXPECT_EQ(schedule->last_ran_ms, 3128305);
    EXPECT_EQ(schedule->context_switches, 6U);
  }
  for (const auto& text : {figures, dashes + figures, "x\n" + dashes, "x\n" + dashes + figures.substr(0, 70),
                           "x\n" + dashes + "se.exec_start : -5.2\nnr_switches : 6\n"}) {
    EXPECT_FALSE(parseSchedule(text)) << text;
  }
}

TEST(KernelParseTest, WhatTellsThatAThreadHasNotRunIsWholeOrNone) {
  const ThreadRuns runs = {.run_ns = 0, .waited_ns = 289681, .slices = 1};
  EXPECT_EQ(parseThreadRuns("0 289681 1\n"), runs);
  for (const auto text : {"", "0 0 0\n", "31128305 289681\n", "31128305 289681 -1\n"}) {
    EXPECT_FALSE(parseThreadRuns(text)) << text;
  }
}

TEST(KernelParseTest, SystemFiguresAreWholeOrNone) {
  const auto ticks =
      parseSystemTicks("cpu  80259 7441 16202 4294967296 1018 1 199 45 0 0\ncpu0 1 2 3 4 5 6 7\n");
  EXPECT_EQ(ticks, (SystemTicks{.user = 80259, .system = 16402, .idle = 4294968314, .nice = 7441}));
  for (const auto text : {"", "cpu  1 2 3 4 5 6\n", "cpu0 1 2 3 4 5 6 7\n", "cpu  1 2 3 x 5 6 7\n"}) {
    EXPECT_FALSE(parseSystemTicks(text)) << text;
  }

  // There is none where a kernel does not count it.
  const auto counters = parseVmCounters("pgpginx 1\npgpgin 4\npgpgout 8\npgfault 5\npgfaulty 9\n");
  ASSERT_TRUE(counters);
  EXPECT_EQ(counters->read_kib, 4U);
  EXPECT_EQ(counters->written_kib, 8U);
  EXPECT_EQ(counters->activations, 0U);
  EXPECT_EQ(counters->faults, 5U);
  EXPECT_FALSE(parseVmCounters("pgpgin 4\npgpgout 8\npgactivate 3\npgfault -5\n"));
}

TEST(KernelParseTest, LinksKeepTheirSixtyFourBits) {
  constexpr std::string_view kHeads = "Inter-| Receive\n face |bytes\n";
  const auto links = parseNetDev(std::string(kHeads) +
                                 "    lo:    3267      29    0    0    0     0          0         0     32   "
                                 "    2    0    0    0 0 0 0\n"
                                 "a.1:18446744073709551615 1 0 0 0 0 0 0 5 6 0 0 0 0 0 0\n");
  const std::vector<LinkCounters> expected = {
      {.received_bytes = 3267, .received_packets = 29, .sent_bytes = 32, .sent_packets = 2},
      {.received_bytes = UINT64_MAX, .received_packets = 1, .sent_bytes = 5, .sent_packets = 6}};
  EXPECT_EQ(links, expected);
  EXPECT_EQ(parseNetDev(kHeads), std::vector<LinkCounters>());
  EXPECT_FALSE(parseNetDev(std::string(kHeads) + "lo: 1 2 3 4 5 6 7 8 9\n"));
  EXPECT_FALSE(parseNetDev(std::string(kHeads) + "lo 1 2 3 4 5 6 7 8 9 10\n"));
}

TEST(KernelParseTest, AThreadsKernelStackIsThatOfTheKernelNotOfTheReader) {
  constexpr std::uint64_t kOf32Bits = sizeof(void*) == 8 ? 16384 : 8192;  // never seen by a reader of 64 bits
  for (const char* const machine : {"x86_64", "aarch64", "armv8l"}) {
    EXPECT_EQ(kernelStackBytes(machine, 4096), 16384U) << machine;
  }
  for (const char* const machine : {"i686", "armv7l"}) EXPECT_EQ(kernelStackBytes(machine, 4096), kOf32Bits);
  EXPECT_EQ(kernelStackBytes("aarch64", 65536), 65536U);
}

TEST(KernelParseTest, AMountIsReadPastItsOptionalFields) {
  for (const std::string_view optional : {"", " shared:2 master:1"}) {
    const std::string line = "36 35 0:98 / /a\\040-\\040b rw" + std::string(optional) + " - fuse.x me rw";
    const auto mounted = parseMount(line);
    ASSERT_TRUE(mounted) << line;
    EXPECT_EQ(mounted->mount_id, 36U);
    EXPECT_EQ(mounted->device_major, 0U);
    EXPECT_EQ(mounted->device_minor, 98U);
    EXPECT_EQ(mounted->type, "fuse.x");
  }
  for (const char* const line :
       {"", "36 35 0 / / rw - ext4 x rw", "36 35 0:98 / / rw", "36 35 0:98 / / rw - "}) {
    EXPECT_FALSE(parseMount(line)) << line;
  }
}

}  // namespace
}  // namespace volorn::linux_host
