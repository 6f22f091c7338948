#include "volornctl/live/memory.h"

#include <gtest/gtest.h>

#include "platform/fake/fake_host.h"
#include "snapshot/voLornMemory.h"

namespace volorn::ctl {
namespace {

class MemoryTest : public testing::Test {
 protected:
  MemoryTest() {
    fake::FakeTask& task = host_.kernel.addTask(1, "a\n\xFF\"\\");
    task.basic.resident_size = 12288;
    task.extmod.task_uuid.fill(0xA0);
    const char* const calls[] = {"proc_name", "proc_pidinfo 2", "task_for_pid",
                                 TaskResidentSize::kIs64Bit ? "task_info 18" : "task_info 4", "task_info 19"};
    std::int32_t pid = 1;
    for (const char* call : calls) {
      host_.kernel.addTask(++pid, "b\x1b[1m");
      host_.kernel.failures.push_back({.call = call, .pid = pid, .code = 5});
    }
  }

  fake::FakeHost host_;
  const Services services_ = host_.services();
  const ScopedServices scoped_{services_};
};

TEST_F(MemoryTest, TheTextIsTheReportsButForTheNames) {
  std::string expected = voLornMemory::getMemoryData();
  const auto replaceAll = [&](const std::string& name, const std::string& shown) {
    for (std::size_t at = 0; (at = expected.find(name, at)) != expected.npos; at += shown.size()) {
      expected.replace(at, name.size(), shown);
    }
  };
  replaceAll("           a\n\xFF\"\\", R"(   a\u{a}\xff"\\)");
  replaceAll("b\x1b[1m", R"(b\u{1b}[1m)");
  EXPECT_EQ(memoryText(), expected);
}

TEST_F(MemoryTest, Json) {
  EXPECT_EQ(memoryJson(), R"({"schema":1,"processes":[{"pid":1,"name":"a\n\ufffd\"\\",)"
                          R"("uuid":"a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0","rpages":3,"residentBytes":12288},)"
                          R"({"pid":2,"name":"","error":"proc_name"},)"
                          R"({"pid":3,"name":"b\u001b[1m","error":"proc_pidinfo"},)"
                          R"({"pid":4,"name":"b\u001b[1m","error":"task_for_pid"},)"
                          R"({"pid":5,"name":"b\u001b[1m","error":"task_info_basic"},)"
                          R"({"pid":6,"name":"b\u001b[1m","error":"task_info_extmod"}]})"
                          "\n");
}

TEST_F(MemoryTest, TablesAreFilteredOrderedAndAddedUp) {
  host_.kernel.addTask(7, "c").basic.resident_size = 3U << 30;
  host_.kernel.addTask(8, "d").basic.resident_size = 4096;
  host_.kernel.tasks.at(8).process.uid = 5;
  const std::string zeros = " 00000000000000000000000000000000 ";
  const std::pair<MemoryChoice, std::string> cases[] = {
      {{.processes = {.pids = {5, 7, 8}}, .order = "resident", .has_total = true},
       "PID Pages Resident UUID Name | 7 786432 3.0 GiB" + zeros + "c | 8 1 4.0 KiB" + zeros +
           "d | 5 - - task_info_basic failed b\\u{1b}[1m | Total 786433 3.0 GiB | "},
      {{.processes = {.uid = 5}}, "PID Pages Resident UUID Name | 8 1 4.0 KiB" + zeros + "d | "},
      {{.order = "resident", .is_reversed = true, .has_total = true, .is_grouped = true},
       "Processes Resident UUID Name of the first | 2 3.0 GiB" + zeros +
           "d | 1 12.0 KiB a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0 a\\u{a}\\xff\"\\\\ | 3 3.0 GiB Total | "},
  };
  for (const auto& [choice, expected] : cases) {
    std::string text;
    for (const char c : memoryTable(choice, false))
      text += c == '\n' ? std::string(" | ") : std::string(1, c);
    // Blanks between columns depend on the widest cell.
    for (std::size_t at = 0; (at = text.find("  ")) != text.npos;) text.erase(at, 1);
    text.erase(0, text.find_first_not_of(' '));
    EXPECT_EQ(text, expected);
  }
}

}  // namespace
}  // namespace volorn::ctl
