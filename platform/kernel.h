#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/kernel_records.h"

namespace volorn {

// A port names something of the kernel's: the host, a processor set, a task, a thread. A number, no pointer.
using PortName = std::uint32_t;

// Ports that the kernel lends to the caller, who hands each port and then the array itself back:
// mach_port_deallocate, mach_vm_deallocate. Until then its memory stands still. What is never handed back
// lives as long as the kernel does; handing back what is not lent does nothing.
using PortArray = std::span<const PortName>;

using KernelReturn = std::int32_t;
inline constexpr KernelReturn kKernelSuccess = 0;
inline constexpr KernelReturn kKernelInvalidAddress = 1;   // no region at or past the address
inline constexpr KernelReturn kKernelInvalidArgument = 4;  // no such port, or the process is gone
inline constexpr KernelReturn kKernelFailure = 5;          // not allowed, or not to be had

// The numeric name of a system value: a path of components.
using SysctlName = std::span<const std::int32_t>;

// The type of proc_listpids that lists every process.
inline constexpr std::uint32_t kProcAllPids = 1;

// The program that runs executables of an older kind, whose processes all bear its name. A host without one
// still takes every beginning of the name for it: so the name is one that commands do not have. The empty
// name matches, and one that a process gives itself on purpose: its arguments name it then.
inline constexpr std::string_view kLegacyLauncherName = "\x01launcher";
inline constexpr std::string_view kLegacyLauncherNameInParentheses = "(\x01launcher)";

// The kernel's own calls, by their names and with their result codes. Calls that give a KernelReturn have
// done nothing to their out parameters when it is not kKernelSuccess; those that give an int set errno when
// they fail.
//
// One task is read by many calls in a row: while a port is lent, each source of its figures is read at most
// once, at the first call that needs it. A port that was handed back and got again starts afresh.
class Kernel {
 public:
  virtual ~Kernel() = default;

  // -- Time and system values. These return 0, unless they say otherwise, or -1 with errno set and the out
  // parameters untouched.

  // Fills up to `count` run-queue averages (1, 5 and 15 minutes; never more than three) and returns how many,
  // or -1 with errno set.
  virtual int getloadavg(double samples[], int count) = 0;

  // The wall clock, since 1 January 1970 UTC.
  virtual int gettimeofday(TimeStamp& now) = 0;

  // Reads a system value of 32 bits.
  virtual int sysctlbyname(std::string_view name, std::int32_t& value) = 0;

  // Resolves a name into its numeric form. `length` is the room in `components` and becomes the components
  // used.
  virtual int sysctlnametomib(std::string_view name, std::int32_t components[], std::size_t& length) = 0;

  // {1, 8}: the most bytes that a process's arguments can take. "sysctl.proc_cputype" and a pid: the
  // processor type of the process's executable, 0 when it is not known.
  virtual int sysctl(SysctlName name, std::uint32_t& value) = 0;

  // {6, 24}: bytes of physical memory. "machdep.memmap.Reserved", ".Unusable" and ".Other": bytes of it that
  // the kernel keeps back. `length_bytes` becomes the bytes filled: 8 where all is well.
  virtual int sysctl(SysctlName name, std::uint64_t& value, std::size_t& length_bytes) = 0;

  // {2, 5}.
  virtual int sysctl(SysctlName name, SwapUsage& record) = 0;

  // {1, 14, 1, pid}.
  virtual int sysctl(SysctlName name, KinfoProc& record) = 0;

  // {4, 17, 0, 0, 6, 0}: the interface list, messages as `interface_message` has them. {1, 49, pid}: the path
  // of a process's executable, one or more NULs, then its arguments, each with a NUL behind it (the last may
  // lack it). `length_bytes` is the room in `buffer` and becomes the bytes filled, or, for a null `buffer`,
  // needed. Of arguments that do not fit, as much as fits is given; an interface list that does not fit fails
  // with ENOMEM.
  virtual int sysctl(SysctlName name, std::byte* buffer, std::size_t& length_bytes) = 0;

  // -- Processes by pid.

  // Lists pids, 4 bytes each. With a null `buffer`, the bytes needed (perhaps more than a list just then
  // takes), else the bytes filled, at most `size_bytes`. 0 or less when it fails.
  virtual int proc_listpids(std::uint32_t type, std::uint32_t type_info, std::int32_t* buffer,
                            int size_bytes) = 0;

  // Writes the process's short name and a NUL, cut to `size_bytes`. Returns its length; 0 or less when it
  // fails, a nameless process included.
  virtual int proc_name(std::int32_t pid, char* buffer, std::uint32_t size_bytes) = 0;

  // Returns the bytes filled, the record's kSizeBytes; 0 or less when it fails.
  virtual int proc_pidinfo(std::int32_t pid, ProcTaskAllInfo& record) = 0;
  virtual int proc_pidinfo(std::int32_t pid, ProcWorkQueueInfo& record) = 0;

  // -- The host.

  virtual PortName mach_host_self() = 0;
  virtual PortName mach_task_self() = 0;

  // Bytes.
  virtual KernelReturn host_page_size(PortName host, std::uint64_t& page_size) = 0;

  virtual KernelReturn host_statistics(PortName host, CpuTicks& record) = 0;

  // `count` becomes the 32-bit words that the host filled: fewer than kCount where it lacks the purge
  // counters.
  virtual KernelReturn host_statistics64(PortName host, VmStatistics64& record, std::uint32_t& count) = 0;

  // The names of the processor sets, the right to list the tasks of one, and these tasks. Every process has a
  // task in one set; a process that ends keeps its port a number whose calls fail.
  virtual KernelReturn host_processor_sets(PortName host, PortArray& set_names) = 0;
  virtual KernelReturn host_processor_set_priv(PortName host, PortName set_name, PortName& set) = 0;
  virtual KernelReturn processor_set_tasks(PortName set, PortArray& tasks) = 0;

  // -- Tasks and threads. A port from task_for_pid is lent like those of the lists.

  virtual KernelReturn task_for_pid(PortName own_task, std::int32_t pid, PortName& task) = 0;
  virtual KernelReturn pid_for_task(PortName task, std::int32_t& pid) = 0;

  virtual KernelReturn task_info(PortName task, TaskBasicInfo& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskResidentSize& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskEventsInfo& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskKernelMemoryInfo& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskPowerInfo& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskVmInfo& record) = 0;
  virtual KernelReturn task_info(PortName task, TaskExtmodInfo& record) = 0;

  virtual KernelReturn task_threads(PortName task, PortArray& threads) = 0;
  virtual KernelReturn thread_info(PortName thread, ThreadBasicInfo& record) = 0;

  // The names of the ports that a task holds and, one for each, their types. Only how many there are is
  // anybody's to use: the values are the host's own. The ports are not lent, the two arrays are.
  virtual KernelReturn mach_port_names(PortName task, PortArray& names, PortArray& types) = 0;

  // -- Memory.

  // The first region that ends past `address`, which becomes the region's start; `size` becomes its bytes.
  // kKernelInvalidAddress when there is none. Calls that go upwards through a task are the ones to make
  // cheap.
  virtual KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionTopInfo& record) = 0;
  virtual KernelReturn mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionBasicInfo& record) = 0;

  // What a walk over all regions of a task comes to, from a host that knows it without one. Private regions
  // are one group, empty ones another, those among the shared libraries kept apart; every other region is a
  // group of its own, in the order of their addresses, but for libraries without private pages, which are
  // left out. False: walk. `groups` hold until the next call.
  virtual bool regionGroups(PortName /*task*/, std::span<const RegionGroup>& /*groups*/) { return false; }

  // As mach_vm_region, through maps nested to `depth`, which becomes the depth of the region found.
  virtual KernelReturn mach_vm_region_recurse(PortName task, std::uint64_t& address, std::uint64_t& size,
                                              std::uint32_t& depth, SubmapInfo64& record) = 0;

  // -- Handing back.

  virtual KernelReturn mach_port_deallocate(PortName own_task, PortName port) = 0;
  virtual KernelReturn mach_vm_deallocate(PortName own_task, PortArray array) = 0;

  // What a result means, in words, for any number. Lives as long as the program.
  virtual const char* mach_error_string(KernelReturn result) = 0;
};

}  // namespace volorn
