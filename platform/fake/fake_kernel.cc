#include "platform/fake/fake_kernel.h"

#include <algorithm>
#include <utility>

namespace volorn::fake {
namespace {

constexpr PortName kHost = 1;
constexpr PortName kOwnTask = 2;
constexpr PortName kFirstPort = 100;

std::string joined(std::string_view first, std::string_view second) {
  return std::string(first) + " " + std::string(second);
}

}  // namespace

FakeTask& FakeKernel::addTask(std::int32_t pid, std::string_view command) {
  FakeTask& task = tasks[pid];
  task.pid = pid;
  task.setCommand(command);
  task.threads = {{.user_time = {},
                   .system_time = {},
                   .run_state = RunState::running,
                   .flags = 0,
                   .sleep_time_seconds = 0}};
  return task;
}

int FakeKernel::failureOf(const char* call, std::int32_t pid) {
  if (pid != kNoProcess && journals_task_calls) calls_.push_back(joined(call, std::to_string(pid)));
  for (Failure& failure : failures) {
    if (failure.pid != pid || failure.call != call) continue;
    if (failure.let_through-- > 0) continue;
    failure.let_through = 0;
    return failure.code;
  }
  return 0;
}

KernelReturn FakeKernel::hostCall(const char* call, PortName host) {
  calls_.emplace_back(call);
  if (host != kHost) return kKernelInvalidArgument;
  return failureOf(call);
}

PortName FakeKernel::lend(const Port& port) {
  if (free_ports_.empty()) {
    ports_.push_back(port);
    return kFirstPort + static_cast<PortName>(ports_.size() - 1);
  }
  const PortName name = free_ports_.back();
  free_ports_.pop_back();
  ports_[name - kFirstPort] = port;
  return name;
}

PortArray FakeKernel::lend(const char* what, std::vector<PortName> ports) {
  ports.reserve(1);  // so that an empty array is told from another
  const PortName* key = ports.data();
  const auto& kept = arrays_.emplace(key, Array{what, std::move(ports)}).first->second.ports;
  return {kept.data(), kept.size()};
}

const FakeKernel::Port* FakeKernel::lentPort(PortName name, PortKind kind) const {
  if (name < kFirstPort || name - kFirstPort >= ports_.size()) return nullptr;
  const Port& port = ports_[name - kFirstPort];
  return port.kind == kind ? &port : nullptr;
}

const FakeTask* FakeKernel::taskOf(std::int32_t pid) const {
  const auto found = tasks.find(pid);
  return found == tasks.end() ? nullptr : &found->second;
}

PortName FakeKernel::mach_host_self() {
  return kHost;
}

PortName FakeKernel::mach_task_self() {
  return kOwnTask;
}

KernelReturn FakeKernel::host_page_size(PortName host, std::uint64_t& page_size) {
  if (const KernelReturn result = hostCall("host_page_size", host)) return result;
  page_size = page_size_bytes;
  return kKernelSuccess;
}

KernelReturn FakeKernel::host_statistics(PortName host, CpuTicks& record) {
  if (const KernelReturn result = hostCall("host_statistics", host)) return result;
  record = ticks;
  return kKernelSuccess;
}

KernelReturn FakeKernel::host_statistics64(PortName host, VmStatistics64& record, std::uint32_t& count) {
  if (const KernelReturn result = hostCall("host_statistics64", host)) return result;
  if (count < vm_count) return kKernelInvalidArgument;
  record = vm;
  count = vm_count;
  return kKernelSuccess;
}

KernelReturn FakeKernel::host_processor_sets(PortName host, PortArray& set_names) {
  if (const KernelReturn result = hostCall("host_processor_sets", host)) return result;
  std::vector<PortName> names;
  for (int i = 0; i < processor_set_count; ++i) {
    names.push_back(lend({.kind = PortKind::set_name, .processor_set = i}));
  }
  set_names = lend("set names", std::move(names));
  return kKernelSuccess;
}

KernelReturn FakeKernel::host_processor_set_priv(PortName host, PortName set_name, PortName& set) {
  if (const KernelReturn result = hostCall("host_processor_set_priv", host)) return result;
  const Port* port = lentPort(set_name, PortKind::set_name);
  if (!port) return kKernelInvalidArgument;
  set = lend({.kind = PortKind::set, .processor_set = port->processor_set});
  return kKernelSuccess;
}

KernelReturn FakeKernel::processor_set_tasks(PortName set, PortArray& set_tasks) {
  if (const KernelReturn result = hostCall("processor_set_tasks", kHost)) return result;
  const Port* port = lentPort(set, PortKind::set);
  if (!port) return kKernelInvalidArgument;
  const int wanted = port->processor_set;  // lending moves the ports
  std::vector<PortName> ports;
  for (const auto& [pid, task] : tasks) {
    if (task.processor_set == wanted) ports.push_back(lend({.kind = PortKind::task, .task = &task}));
  }
  if (lists_tasks_backwards) std::reverse(ports.begin(), ports.end());
  set_tasks = lend("tasks", std::move(ports));
  return kKernelSuccess;
}

KernelReturn FakeKernel::task_for_pid(PortName own_task, std::int32_t pid, PortName& task) {
  if (const int code = failureOf("task_for_pid", pid)) return code;
  const FakeTask* found = taskOf(pid);
  if (own_task != kOwnTask || !found) return kKernelFailure;
  task = lend({.kind = PortKind::task, .task = found});
  return kKernelSuccess;
}

KernelReturn FakeKernel::pid_for_task(PortName task, std::int32_t& pid) {
  const Port* port = lentPort(task, PortKind::task);
  if (!port) return kKernelInvalidArgument;
  if (const int code = failureOf("pid_for_task", port->task->pid)) return code;
  pid = port->task->pid;
  return kKernelSuccess;
}

template <typename Record>
KernelReturn FakeKernel::taskInfo(const char* call, PortName task, Record FakeTask::*member, Record& record) {
  const Port* port = lentPort(task, PortKind::task);
  if (!port) return kKernelInvalidArgument;
  if (const int code = failureOf(call, port->task->pid)) return code;
  record = port->task->*member;
  return kKernelSuccess;
}

KernelReturn FakeKernel::task_info(PortName task, TaskBasicInfo& record) {
  return taskInfo("task_info 18", task, &FakeTask::basic, record);
}

KernelReturn FakeKernel::task_info(PortName task, TaskResidentSize& record) {
  constexpr const char* kCall = TaskResidentSize::kIs64Bit ? "task_info 18" : "task_info 4";
  TaskBasicInfo whole = {};
  const KernelReturn result = taskInfo(kCall, task, &FakeTask::basic, whole);
  if (result == kKernelSuccess) record = {.resident_size = whole.resident_size};
  return result;
}

KernelReturn FakeKernel::task_info(PortName task, TaskEventsInfo& record) {
  return taskInfo("task_info 2", task, &FakeTask::events, record);
}

KernelReturn FakeKernel::task_info(PortName task, TaskKernelMemoryInfo& record) {
  return taskInfo("task_info 7", task, &FakeTask::kernel_memory, record);
}

KernelReturn FakeKernel::task_info(PortName task, TaskPowerInfo& record) {
  return taskInfo("task_info 21", task, &FakeTask::power, record);
}

KernelReturn FakeKernel::task_info(PortName task, TaskVmInfo& record) {
  return taskInfo("task_info 23", task, &FakeTask::vm, record);
}

KernelReturn FakeKernel::task_info(PortName task, TaskExtmodInfo& record) {
  return taskInfo("task_info 19", task, &FakeTask::extmod, record);
}

KernelReturn FakeKernel::task_threads(PortName task, PortArray& threads) {
  const Port* port = lentPort(task, PortKind::task);
  if (!port) return kKernelInvalidArgument;
  const FakeTask* owner = port->task;
  if (const int code = failureOf("task_threads", owner->pid)) return code;
  std::vector<PortName> ports;
  for (std::size_t i = 0; i < owner->threads.size(); ++i) {
    ports.push_back(lend({.kind = PortKind::thread, .task = owner, .thread = i}));
  }
  threads = lend("threads", std::move(ports));
  return kKernelSuccess;
}

KernelReturn FakeKernel::thread_info(PortName thread, ThreadBasicInfo& record) {
  const Port* port = lentPort(thread, PortKind::thread);
  if (!port) return kKernelInvalidArgument;
  if (const int code = failureOf("thread_info", port->task->pid)) return code;
  record = port->task->threads[port->thread];
  return kKernelSuccess;
}

KernelReturn FakeKernel::mach_port_names(PortName task, PortArray& names, PortArray& types) {
  const Port* port = lentPort(task, PortKind::task);
  if (!port) return kKernelInvalidArgument;
  if (const int code = failureOf("mach_port_names", port->task->pid)) return code;
  names = lend("port names", std::vector<PortName>(port->task->port_count));
  types = lend("port types", std::vector<PortName>(port->task->port_count));
  return kKernelSuccess;
}

template <typename Record>
KernelReturn FakeKernel::region(const char* call, PortName task, std::uint64_t& address, std::uint64_t& size,
                                Record FakeRegion::*member, Record& record) {
  const Port* port = lentPort(task, PortKind::task);
  if (task != kOwnTask && !port) return kKernelInvalidArgument;
  if (const int code = failureOf(call, port ? port->task->pid : kNoProcess)) return code;
  const std::vector<FakeRegion>& regions = port ? port->task->regions : own_regions;
  const auto found = std::partition_point(regions.begin(), regions.end(), [&](const FakeRegion& candidate) {
    return candidate.address <= address && address - candidate.address >= candidate.size;
  });
  if (found == regions.end()) return kKernelInvalidAddress;
  address = found->address;
  size = found->size;
  record = (*found).*member;
  return kKernelSuccess;
}

KernelReturn FakeKernel::mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                        RegionTopInfo& record) {
  return region("mach_vm_region 12", task, address, size, &FakeRegion::top, record);
}

KernelReturn FakeKernel::mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                        RegionBasicInfo& record) {
  return region("mach_vm_region 10", task, address, size, &FakeRegion::basic, record);
}

KernelReturn FakeKernel::mach_vm_region_recurse(PortName task, std::uint64_t& address, std::uint64_t& size,
                                                std::uint32_t& depth, SubmapInfo64& record) {
  calls_.push_back("mach_vm_region_recurse " + std::to_string(depth));
  return region("mach_vm_region_recurse", task, address, size, &FakeRegion::submap, record);
}

KernelReturn FakeKernel::mach_port_deallocate(PortName own_task, PortName port) {
  if (own_task != kOwnTask || port < kFirstPort || port - kFirstPort >= ports_.size()) {
    return kKernelInvalidArgument;
  }
  Port& lent = ports_[port - kFirstPort];
  if (lent.kind == PortKind::none) return kKernelInvalidArgument;
  constexpr std::array kKinds = {"", "set name", "set", "task", "thread"};
  if (journals_task_calls) {
    calls_.push_back(joined("mach_port_deallocate", kKinds[static_cast<std::size_t>(lent.kind)]));
  }
  lent = {};
  free_ports_.push_back(port);
  return kKernelSuccess;
}

KernelReturn FakeKernel::mach_vm_deallocate(PortName own_task, PortArray array) {
  const auto found = arrays_.find(array.data());
  if (own_task != kOwnTask || found == arrays_.end()) return kKernelInvalidArgument;
  if (journals_task_calls) calls_.push_back(joined("mach_vm_deallocate", found->second.what));
  arrays_.erase(found);
  return kKernelSuccess;
}

const char* FakeKernel::mach_error_string(KernelReturn result) {
  switch (result) {
    case kKernelSuccess:
      return "success";
    case kKernelInvalidAddress:
      return "invalid address";
    case kKernelInvalidArgument:
      return "invalid argument";
    case kKernelFailure:
      return "failure";
    default:
      return "unknown error code";
  }
}

}  // namespace volorn::fake
