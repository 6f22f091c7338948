#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/linux/read_only_host.h"
#include "snapshot/voLornMemory.h"

namespace volorn {
namespace {

// Finds the row of this process, whose figures but the pages are the same in every report.
class OwnRow : public ProcessMemorySink {
 public:
  void addProcess(const ProcessMemory& process) override {
    if (process.pid != getpid()) return;
    row = std::string(process.name) + ' ' + uuidText(process.uuid);
    rpages = process.rpages;
  }
  void addFailure(const ProcessMemoryFailure& /*failure*/) override {}
  void addListFailure(std::string_view /*text*/) override {}

  std::string row;
  std::int32_t rpages = 0;
};

TEST(ReportThreadsTest, ReportsAtOnceAreIndependent) {
  const linux_host::ReadOnlyHost host;
  OwnRow alone;
  walkProcessMemory(alone);
  ASSERT_NE(alone.row, "");
  std::vector<OwnRow> together(2);
  std::vector<std::thread> threads;
  for (OwnRow& own : together) {
    threads.emplace_back([&own] {
      for (int i = 0; i < 5; ++i) walkProcessMemory(own);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const OwnRow& own : together) {
    EXPECT_EQ(own.row, alone.row);
    EXPECT_GT(own.rpages, 0);
  }
}

}  // namespace
}  // namespace volorn
