#include "volornctl/memory.h"

#include <gtest/gtest.h>

#include <stdexcept>

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
                          R"("uuid":"a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0","rpages":3},)"
                          R"({"pid":2,"name":"","error":"proc_name"},)"
                          R"({"pid":3,"name":"b\u001b[1m","error":"proc_pidinfo"},)"
                          R"({"pid":4,"name":"b\u001b[1m","error":"task_for_pid"},)"
                          R"({"pid":5,"name":"b\u001b[1m","error":"task_info_basic"},)"
                          R"({"pid":6,"name":"b\u001b[1m","error":"task_info_extmod"}]})"
                          "\n");
}

TEST_F(MemoryTest, WithoutAListThereIsNoReport) {
  host_.kernel.failures = {{.call = "proc_listpids", .pid = fake::FakeKernel::kNoProcess, .code = 5}};
  EXPECT_THROW(memoryText(), std::runtime_error);
  EXPECT_THROW(memoryJson(), std::runtime_error);
}

}  // namespace
}  // namespace volorn::ctl
