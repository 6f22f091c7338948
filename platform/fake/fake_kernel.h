#pragma once

#include <array>
#include <climits>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fake/call_journal.h"
#include "platform/fake/fake_task.h"
#include "platform/kernel.h"

namespace volorn::fake {

// A kernel whose figures, tasks and failures are data. Its calls are named, for failures and in the journal,
// by their name and, where it has one, their flavour or system value: "pid_for_task", "task_info 18",
// "sysctl 2.5", "sysctl machdep.memmap.Other". In the journal stand also the count that getloadavg is
// offered, the depth of mach_vm_region_recurse, and what is handed back.
class FakeKernel : public Kernel {
 public:
  static constexpr std::int32_t kNoProcess = INT_MIN;

  struct Failure {
    std::string call;
    std::int32_t pid = kNoProcess;  // of the process that is asked about
    int code = 0;                   // the result, or errno
    int let_through = 0;            // so many of these calls succeed first
  };

  explicit FakeKernel(CallJournal& calls) : calls_(calls) {}

  // A bare task of this pid and command, with one running thread.
  FakeTask& addTask(std::int32_t pid, std::string_view command);

  // One message of an interface list: received packets, sent packets, received bytes, sent bytes.
  static std::string interfaceMessage(std::array<std::uint64_t, 4> counters,
                                      std::uint8_t type = interface_message::kInformation64);

  // What was lent and not handed back.
  std::size_t lentPorts() const { return ports_.size() - free_ports_.size(); }
  std::size_t lentArrays() const { return arrays_.size(); }

  std::vector<Failure> failures;
  std::map<std::int32_t, FakeTask> tasks;  // by pid; none may go while a port of it is lent
  std::optional<int> pid_list_size_bytes;  // told when asked; none: what the list takes
  int processor_set_count = 1;
  bool lists_tasks_backwards = false;  // in processor_set_tasks: from the highest pid down
  bool journals_task_calls = false;    // each call about one process, with its pid, and what is handed back

  std::array<double, 3> load_averages = {0.0, 0.0, 0.0};
  int load_averages_result = 3;
  std::map<std::string, std::int32_t, std::less<>> system_values;  // a name that is not here fails
  TimeStamp time = {};
  std::uint64_t page_size_bytes = 4096;
  std::uint64_t memory_bytes = 0;
  std::uint32_t argument_limit_bytes = 4096;
  std::map<std::string, std::uint64_t, std::less<>> reserved_bytes;  // by the last part of "machdep.memmap."
  std::size_t reserved_length_bytes = sizeof(std::uint64_t);
  std::size_t processor_type_name_length = 2;  // components
  SwapUsage swap = {};
  std::string interface_list;
  CpuTicks ticks = {};
  VmStatistics64 vm = {};
  std::uint32_t vm_count = VmStatistics64::kCount;
  std::vector<FakeRegion> own_regions;  // of the sampler's task, by address

  int getloadavg(double samples[], int count) override;
  int gettimeofday(TimeStamp& now) override;
  int sysctlbyname(std::string_view name, std::int32_t& value) override;
  int sysctlnametomib(std::string_view name, std::int32_t components[], std::size_t& length) override;
  int sysctl(SysctlName name, std::uint32_t& value) override;
  int sysctl(SysctlName name, std::uint64_t& value, std::size_t& length_bytes) override;
  int sysctl(SysctlName name, SwapUsage& record) override;
  int sysctl(SysctlName name, KinfoProc& record) override;
  int sysctl(SysctlName name, std::byte* buffer, std::size_t& length_bytes) override;
  int proc_listpids(std::uint32_t type, std::uint32_t type_info, std::int32_t* buffer,
                    int size_bytes) override;
  int proc_name(std::int32_t pid, char* buffer, std::uint32_t size_bytes) override;
  int proc_pidinfo(std::int32_t pid, ProcTaskAllInfo& record) override;
  int proc_pidinfo(std::int32_t pid, ProcWorkQueueInfo& record) override;
  PortName mach_host_self() override;
  PortName mach_task_self() override;
  KernelReturn host_page_size(PortName host, std::uint64_t& page_size) override;
  KernelReturn host_statistics(PortName host, CpuTicks& record) override;
  KernelReturn host_statistics64(PortName host, VmStatistics64& record, std::uint32_t& count) override;
  KernelReturn host_processor_sets(PortName host, PortArray& set_names) override;
  KernelReturn host_processor_set_priv(PortName host, PortName set_name, PortName& set) override;
  KernelReturn processor_set_tasks(PortName set, PortArray& tasks) override;
  KernelReturn task_for_pid(PortName own_task, std::int32_t pid, PortName& task) override;
  KernelReturn pid_for_task(PortName task, std::int32_t& pid) override;
  KernelReturn task_info(PortName task, TaskBasicInfo& record) override;
  KernelReturn task_info(PortName task, TaskResidentSize& record) override;
  KernelReturn task_info(PortName task, TaskEventsInfo& record) override;
  KernelReturn task_info(PortName task, TaskKernelMemoryInfo& record) override;
  KernelReturn task_info(PortName task, TaskPowerInfo& record) override;
  KernelReturn task_info(PortName task, TaskVmInfo& record) override;
  KernelReturn task_info(PortName task, TaskExtmodInfo& record) override;
  KernelReturn task_threads(PortName task, PortArray& threads) override;
  KernelReturn thread_info(PortName thread, ThreadBasicInfo& record) override;
  KernelReturn mach_port_names(PortName task, PortArray& names, PortArray& types) override;
  KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                              RegionTopInfo& record) override;
  KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                              RegionBasicInfo& record) override;
  KernelReturn mach_vm_region_recurse(PortName task, std::uint64_t& address, std::uint64_t& size,
                                      std::uint32_t& depth, SubmapInfo64& record) override;
  KernelReturn mach_port_deallocate(PortName own_task, PortName port) override;
  KernelReturn mach_vm_deallocate(PortName own_task, PortArray array) override;
  const char* mach_error_string(KernelReturn result) override;

 private:
  enum class PortKind { none, set_name, set, task, thread };
  struct Port {
    PortKind kind = PortKind::none;
    int processor_set = 0;           // of a set or its name
    const FakeTask* task = nullptr;  // of a task or thread
    std::size_t thread = 0;          // index
  };

  struct Array {
    const char* what;
    std::vector<PortName> ports;
  };

  // The code of the failure scripted for this call, or 0.
  int failureOf(const char* call, std::int32_t pid = kNoProcess);
  int systemCall(std::string_view call);
  KernelReturn hostCall(const char* call, PortName host);
  PortName lend(const Port& port);
  PortArray lend(const char* what, std::vector<PortName> ports);
  const Port* lentPort(PortName name, PortKind kind) const;
  const FakeTask* taskOf(std::int32_t pid) const;

  template <typename Record>
  KernelReturn taskInfo(const char* call, PortName task, Record FakeTask::*member, Record& record);
  template <typename Record>
  KernelReturn region(const char* call, PortName task, std::uint64_t& address, std::uint64_t& size,
                      Record FakeRegion::*member, Record& record);

  CallJournal& calls_;
  std::vector<Port> ports_;  // port n is entry n - kFirstPort
  std::vector<PortName> free_ports_;
  std::map<const PortName*, Array> arrays_;
};

}  // namespace volorn::fake
