#pragma once

#include <sys/sysinfo.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/kernel.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/kernel/lent_arrays.h"
#include "platform/linux/kernel/task_ports.h"
#include "platform/linux/stand_ins.h"

namespace volorn::linux_host {

// Shows Linux as the kernel that Kernel describes: a process is a task, all of them are in one processor set.
// What Linux does not count is 0. Processes that `hidepid` hides are not there.
//
// Several threads may call at once; each call does its reading alone. A call that memory runs out in fails.
class LinuxKernel : public Kernel {
 public:
  using SystemInfoCall = int (*)(struct sysinfo* info);

  // `system_info`: sysinfo(2), which has no root to point elsewhere. `stand_ins`: null where nobody asks
  // which values stand in for a reading.
  explicit LinuxKernel(std::string proc_root, RegionSource region_source = RegionSource::best,
                       SystemInfoCall system_info = ::sysinfo, StandIns* stand_ins = nullptr)
      : proc_root_(std::move(proc_root)),
        region_source_(region_source),
        system_info_(system_info),
        stand_ins_(stand_ins) {}

  // For who takes one sample after another: from now on what a process showed in the sample before is served
  // again as long as it holds, from so many bytes at most. What does not fit is read, as everything is in the
  // first sample, or where the kernel shows no `schedstat`. Up to half of the descriptors that this process
  // may have are held open.
  //
  // A process none of whose threads has run since (`schedstat` tells) is served from memory whole: its record
  // and name, processor type, basic, event, kernel memory, power and VM information, threads with their
  // times and states, descriptors, and regions. Only the time that a thread has slept is computed anew. What
  // others can change of it is looked at when its parent has gone, and at least once in ten samples: its
  // sizes by `statm`, its parent, group and state by `stat`, and the number of its descriptors. When any of
  // these is another, all is read anew. Its pages, which others can make shared or its own, are walked when a
  // child or its parent has ended, when a child has executed a program, and at least once in a hundred
  // samples.
  void rememberProcesses(std::size_t most_bytes = std::size_t{64} << 20);

  // Forgets which memory objects have been met, but for those in what is remembered: their number only grows.
  // For who has forgotten all of them himself.
  void forgetObjects();

  // What the figures of a process do not tell by themselves.
  struct Notes {
    std::uint64_t start_ticks;   // with the pid, who it is: unlike the time of start it never changes
    bool regions_are_known;      // else it shows none because nobody may read them
    bool descriptors_are_known;  // likewise its ports
  };

  // Of the process that was asked about last under the pid. None of one that was not yet.
  std::optional<Notes> notesOn(std::int32_t pid);

  // In the kernel's own fixed point: the text of /proc/loadavg cuts it to two decimals, and so may lose a
  // hundredth more.
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

  // This process's own task. What is read of it holds until the tasks are listed again. There is none where
  // <proc_root>/self leads to no process: it then shows those of a namespace that this one is not in.
  PortName mach_task_self() override;

  KernelReturn host_page_size(PortName host, std::uint64_t& page_size) override;

  // An idle count that falls, as the kernel's does, stays as it was until it is past that.
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

  // Of a kernel that remembers alone.
  bool regionGroups(PortName task, std::span<const RegionGroup>& groups) override;

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
  int readMemoryLevel(std::int32_t& percent);
  int readProcesses();
  int readInterfaceList(std::byte* buffer, std::size_t& length_bytes);
  int readArguments(Task& task, std::byte* buffer, std::size_t& length_bytes);

  // Does the work of a call. `failure`: the result when there is no memory for it; errno is set as well.
  template <typename Result, typename Work>
  Result call(Result failure, Work work) {
    const std::lock_guard lock(mutex_);
    const std::size_t lent_before = arrays_.lentCount();
    try {
      return work();
    } catch (const std::bad_alloc&) {
      arrays_.dropFrom(lent_before);
      errno = ENOMEM;
      return failure;
    }
  }

  std::mutex mutex_;  // held by every call for as long as it uses what follows
  std::string proc_root_;
  RegionSource region_source_;
  SystemInfoCall system_info_;
  StandIns* stand_ins_;
  FileBuffer buffer_;
  std::optional<Tasks> tasks_;
  std::uint64_t idle_ticks_ = 0;  // the most so far
  LentArrays arrays_;
};

}  // namespace volorn::linux_host
