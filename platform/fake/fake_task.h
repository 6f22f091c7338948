#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kernel_records.h"

namespace volorn::fake {

struct FakeRegion {
  std::uint64_t address = 0;
  std::uint64_t size = 0;
  RegionTopInfo top = {};
  RegionBasicInfo basic = {};
  SubmapInfo64 submap = {};  // read in the sampler's own task only
};

// A process, its task and its threads, as the kernel shows them.
struct FakeTask {
  std::int32_t pid = 0;
  int processor_set = 0;  // index
  KinfoProc process = {};
  std::string long_name;  // what proc_name tells; empty: the command
  std::string arguments;  // path and arguments with their NULs
  std::uint32_t cpu_type = 0x1000007;
  TaskBasicInfo basic = {};
  TaskEventsInfo events = {};
  TaskKernelMemoryInfo kernel_memory = {};
  TaskPowerInfo power = {};
  TaskVmInfo vm = {};
  TaskExtmodInfo extmod = {};
  ProcWorkQueueInfo work_queue = {};
  std::vector<ThreadBasicInfo> threads;
  std::uint32_t port_count = 0;
  std::vector<FakeRegion> regions;  // by address

  std::string_view command() const { return process.command.data(); }

  // What does not fit is cut off.
  void setCommand(std::string_view name) {
    process.command.fill('\0');
    std::copy_n(name.begin(), std::min(name.size(), process.command.size() - 1), process.command.begin());
  }
};

}  // namespace volorn::fake
