#include "snapshot/voLornMemory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

#include "platform/fake/fake_host.h"

namespace volorn {
namespace {

using Lines = std::vector<std::string>;

const std::string kHeader =
    "\n            Name                <UUID>                                  rpages\n";
const std::string kWorkerRow = "          worker  <000102030405060708090a0b0c0d0e0f>                     3\n";

constexpr const char* kBasicInfoCall = sizeof(void*) == 8 ? "task_info 18" : "task_info 4";

class VoLornMemoryTest : public testing::Test {
 protected:
  fake::FakeTask& addWorker(std::int32_t pid) {
    fake::FakeTask& task = host.kernel.addTask(pid, "worker");
    task.basic.resident_size = 12288;
    std::iota(task.extmod.task_uuid.begin(), task.extmod.task_uuid.end(), std::uint8_t{0});
    return task;
  }

  void fail(std::string call, std::int32_t pid, int let_through = 0) {
    host.kernel.failures.push_back(
        {.call = std::move(call), .pid = pid, .code = ESRCH, .let_through = let_through});
  }

  static std::string reportBody() {
    const std::string report = voLornMemory::getMemoryData();
    EXPECT_TRUE(report.starts_with(kHeader)) << report;
    return report.substr(std::min(report.size(), kHeader.size()));
  }

  fake::FakeHost host;
  const Services services = host.services();
  const ScopedServices scoped{services};
  const Lines& log = host.system_log.lines;
};

TEST_F(VoLornMemoryTest, ALineForEachProcessBelowTheHeader) {
  addWorker(1);
  fake::FakeTask& other = addWorker(2);
  other.long_name = "sixteen and some\xFF(" + std::string(80, 'x');
  other.extmod.task_uuid.fill(0xF0);
  addWorker(0);  // is skipped
  EXPECT_EQ(kHeader.size(), 80U);
  EXPECT_EQ(kWorkerRow.size(), 75U);
  // The name is what fits into 64 bytes, its NUL among them.
  EXPECT_EQ(reportBody(), kWorkerRow + "sixteen and some\xFF(" + std::string(45, 'x') +
                              "  <f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0>                     3\n");
  EXPECT_TRUE(log.empty());
}

TEST_F(VoLornMemoryTest, PagesOfResidentSizes) {
  constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
  const std::pair<std::uint64_t, int> rows[] = {
      {0, 0}, {1, 1}, {4096, 1}, {4097, 2}, {2 * kGiB - 1, 524288}, {2 * kGiB, -524288}, {4 * kGiB - 1, 1}};
  fake::FakeTask& task = addWorker(1);
  for (const auto& [resident_bytes, pages] : rows) {
    task.basic.resident_size = resident_bytes;
    const std::string body = reportBody();
    EXPECT_TRUE(body.ends_with(" " + std::to_string(pages) + "\n")) << resident_bytes << ": " << body;
    EXPECT_EQ(body.size(), kWorkerRow.size());
  }
}

TEST_F(VoLornMemoryTest, AFailedStepEndsItsProcessAlone) {
  const std::pair<const char*, std::string> kSteps[] = {{"proc_name", "proc_name returned error"},
                                                        {"proc_pidinfo 2", "proc_pidinfo returned error"},
                                                        {"task_for_pid", "task_for_pid returned error"},
                                                        {kBasicInfoCall, "task_info basic info failed"},
                                                        {"task_info 19", "task_info extmod info failed"}};
  addWorker(-5);
  addWorker(6);
  host.kernel.journals_task_calls = true;
  fake::CallJournal asked;
  for (int step = 0; const auto& [call, words] : kSteps) {
    SCOPED_TRACE(call);
    host.kernel.failures.clear();
    fail(call, -5);
    host.system_log.lines.clear();
    host.calls.clear();
    const std::string text = "getMemoryData: " + words;
    // A process without a name has a line to itself; the others leave theirs open.
    EXPECT_EQ(reportBody(),
              text + (step == 0 ? " for pid -5\n" : " for pid: -5, name : worker") + kWorkerRow);
    EXPECT_EQ(log, Lines{text});

    asked.push_back(std::string(call) + " -5");
    std::erase_if(host.calls, [](const std::string& each) { return !each.ends_with(" -5"); });
    EXPECT_EQ(host.calls, asked);
    ++step;
  }
}

TEST_F(VoLornMemoryTest, WithoutAListThereIsItsErrorAlone) {
  const std::string first = "getMemoryData: proc_listpids returns error";
  EXPECT_EQ(reportBody(), first);  // an empty list
  addWorker(1);
  fail("proc_listpids size", fake::FakeKernel::kNoProcess);
  EXPECT_EQ(reportBody(), first);
  host.kernel.failures.clear();
  fail("proc_listpids", fake::FakeKernel::kNoProcess);
  EXPECT_EQ(reportBody(), first + " second time around");
  EXPECT_EQ(log, (Lines{first, first, first + " second time around"}));
}

TEST_F(VoLornMemoryTest, AListThatGrowsIsCutToTheSizeToldBefore) {
  for (const std::int32_t pid : {1, 2, 3}) addWorker(pid);
  host.kernel.pid_list_size_bytes = 8;
  EXPECT_EQ(reportBody(), kWorkerRow + kWorkerRow);
  host.kernel.pid_list_size_bytes = 4096;  // more than it takes
  EXPECT_EQ(reportBody(), kWorkerRow + kWorkerRow + kWorkerRow);
}

}  // namespace
}  // namespace volorn
