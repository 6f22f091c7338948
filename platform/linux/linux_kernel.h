#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/kernel.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/kernel/lent_arrays.h"
#include "platform/linux/kernel/task_ports.h"

namespace volorn::linux_host {

// Shows Linux as the kernel that Kernel describes: a process is a task, all of them are in one processor set.
// What Linux does not count is 0. Processes that `hidepid` hides are not there.
//
// Several threads may call at once; each call does its reading alone.
class LinuxKernel : public Kernel {
 public:
  explicit LinuxKernel(std::string proc_root, RegionSource region_source = RegionSource::best)
      : proc_root_(std::move(proc_root)), region_source_(region_source) {}

  // From <proc_root>/loadavg.
  int getloadavg(double samples[], int count) override;

  int gettimeofday(TimeStamp& now) override;

  // Knows "kern.memorystatus_level", the available part of the memory in percent, from <proc_root>/meminfo.
  // ENOENT for another name and for a meminfo that does not tell it.
  int sysctlbyname(std::string_view name, std::int32_t& value) override;

  // Knows "sysctl.proc_cputype". Linux's total memory leaves out what is kept back at boot, so the names
  // "machdep.memmap.*" do not resolve: ENOENT.
  int sysctlnametomib(std::string_view name, std::int32_t components[], std::size_t& length) override;

  int sysctl(SysctlName name, std::uint32_t& value) override;
  int sysctl(SysctlName name, std::uint64_t& value, std::size_t& length_bytes) override;
  int sysctl(SysctlName name, SwapUsage& record) override;

  // A process is asked about by pid right after pid_for_task() has named it: that is answered from what is
  // read of the task. Any other is read for the one call.
  int sysctl(SysctlName name, KinfoProc& record) override;

  // The path of a process's executable is empty without the right to see it.
  int sysctl(SysctlName name, std::byte* buffer, std::size_t& length_bytes) override;

  // The call for the list gives the processes that were there when the call for its size came before it.
  int proc_listpids(std::uint32_t type, std::uint32_t type_info, std::int32_t* buffer,
                    int size_bytes) override;

  // What is read of the process serves proc_pidinfo() and task_for_pid() as well, when they follow for it.
  int proc_name(std::int32_t pid, char* buffer, std::uint32_t size_bytes) override;

  // Fills in nothing: only whether the process can be asked is told.
  int proc_pidinfo(std::int32_t pid, ProcTaskAllInfo& record) override;
  int proc_pidinfo(std::int32_t pid, ProcWorkQueueInfo& record) override;

  PortName mach_host_self() override;

  // This process's own task. What is read of it holds until the tasks are listed again.
  PortName mach_task_self() override;

  KernelReturn host_page_size(PortName host, std::uint64_t& page_size) override;
  KernelReturn host_statistics(PortName host, CpuTicks& record) override;

  // Wired is what is neither free nor active nor inactive.
  KernelReturn host_statistics64(PortName host, VmStatistics64& record, std::uint32_t& count) override;

  KernelReturn host_processor_sets(PortName host, PortArray& set_names) override;
  KernelReturn host_processor_set_priv(PortName host, PortName set_name, PortName& set) override;
  KernelReturn processor_set_tasks(PortName set, PortArray& tasks) override;

  // For whoever may see which file the process executes.
  KernelReturn task_for_pid(PortName own_task, std::int32_t pid, PortName& task) override;
  KernelReturn pid_for_task(PortName task, std::int32_t& pid) override;
  KernelReturn task_info(PortName task, TaskBasicInfo& record) override;
  KernelReturn task_info(PortName task, TaskResidentSize& record) override;

  // Faults are all page faults, page-ins those that had to wait for a device.
  KernelReturn task_info(PortName task, TaskEventsInfo& record) override;

  // Page tables, and the stacks of the threads within the kernel.
  KernelReturn task_info(PortName task, TaskKernelMemoryInfo& record) override;

  // Times in nanoseconds.
  KernelReturn task_info(PortName task, TaskPowerInfo& record) override;
  KernelReturn task_info(PortName task, TaskVmInfo& record) override;

  // The build id of the executable.
  KernelReturn task_info(PortName task, TaskExtmodInfo& record) override;

  KernelReturn task_threads(PortName task, PortArray& threads) override;
  KernelReturn thread_info(PortName thread, ThreadBasicInfo& record) override;

  // The ports of a task are its open descriptors.
  KernelReturn mach_port_names(PortName task, PortArray& names, PortArray& types) override;

  KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                              RegionTopInfo& record) override;
  KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                              RegionBasicInfo& record) override;

  // Linux nests no maps: the depth found is 0.
  KernelReturn mach_vm_region_recurse(PortName task, std::uint64_t& address, std::uint64_t& size,
                                      std::uint32_t& depth, SubmapInfo64& record) override;

  KernelReturn mach_port_deallocate(PortName own_task, PortName port) override;
  KernelReturn mach_vm_deallocate(PortName own_task, PortArray array) override;
  const char* mach_error_string(KernelReturn result) override;

 private:
  // Much of what reads tasks is memory, which the daemon's own run does without.
  struct Tasks {
    Tasks(const std::string& proc_root, RegionSource region_source)
        : reader(proc_root, region_source), ports(reader) {}

    TaskReader reader;
    TaskPorts ports;
    PortName asked = 0;  // of the process that was asked about last by its pid alone; lent to nobody
    PortName own = 0;    // what mach_task_self() stands for; 0 until it is asked for
    PortName named = 0;  // by pid_for_task() last; 0 when it has been handed back
    std::vector<std::int32_t> pids;
    bool pids_are_counted = false;  // and are to be listed next
  };

  Tasks& tasks();
  PortName lentPort(PortName task);
  Task* taskOf(PortName port);
  Task& taskOf(std::int32_t pid);
  Task* askedTask(std::int32_t pid);
  // Writes the region's place over `address` and `size`; when it gives null, the call's result to `failure`.
  const ProcessRegion* regionPast(PortName port, std::uint64_t& address, std::uint64_t& size, RegionWalk walk,
                                  KernelReturn& failure);
  int readSystemFile(const char* name);
  int readProcesses();
  int readInterfaceList(std::byte* buffer, std::size_t& length_bytes);
  int readArguments(Task& task, std::byte* buffer, std::size_t& length_bytes);
  TimeStamp timeOfStart(std::uint64_t start_ticks);
  bool readBootTime();

  std::mutex mutex_;  // held by every call for as long as it uses what follows
  std::string proc_root_;
  RegionSource region_source_;
  FileBuffer buffer_;
  std::optional<Tasks> tasks_;
  std::optional<std::int64_t> boot_time_seconds_;  // since 1970, as read last
  LentArrays arrays_;
};

}  // namespace volorn::linux_host
