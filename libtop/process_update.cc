#include <algorithm>

#include "libtop/sampler.h"

namespace volorn {
namespace {

constexpr std::int32_t kMicrosecondsPerSecond = 1'000'000;

// The eight counters in the order of the raw ones.
constexpr std::array<EventTotal ProcessSample::*, kTaskEventCount> kEventTotals = {
    &ProcessSample::faults,
    &ProcessSample::pageins,
    &ProcessSample::cow_faults,
    &ProcessSample::messages_sent,
    &ProcessSample::messages_received,
    &ProcessSample::syscalls_mach,
    &ProcessSample::syscalls_bsd,
    &ProcessSample::csw};

bool isNew(const ProcessInfo& pinfo) {
  return pinfo.psamp.seq_prev == 0;
}

TimeStamp sum(TimeStamp a, TimeStamp b) {
  TimeStamp total = {.seconds = a.seconds + b.seconds, .microseconds = a.microseconds + b.microseconds};
  if (total.microseconds >= kMicrosecondsPerSecond) {
    total.microseconds -= kMicrosecondsPerSecond;
    ++total.seconds;
  }
  return total;
}

ProcessState stateOf(const ThreadBasicInfo& thread) {
  switch (thread.run_state) {
    case RunState::running:
      return kProcessRunning;
    case RunState::uninterruptible:
      return kProcessUninterruptible;
    case RunState::waiting:
      return thread.sleep_time_seconds < 1 ? kProcessSleeping : kProcessIdle;
    case RunState::stopped:
      return kProcessStopped;
    case RunState::halted:
      return kProcessHalted;
  }
  return kProcessUnknown;
}

void storeIdentity(ProcessInfo& pinfo, const KinfoProc& kinfo) {
  ProcessSample& psamp = pinfo.psamp;
  psamp.uid = kinfo.uid;
  psamp.ppid = kinfo.ppid;
  psamp.pgid = kinfo.pgid;
  pinfo.proc_flags = kinfo.flags;
  psamp.started = kinfo.started;
  psamp.seq_prev = psamp.seq;
  psamp.seq = sampler.tsamp.seq;
}

bool readProcessorType(ProcessSample& psamp) {
  Kernel& kernel = theKernel();
  CachedName& name = sampler.processor_type_name;
  psamp.cpu_type = 0;
  if (!name.resolve(kernel, "sysctl.proc_cputype")) return false;
  if (name.components().empty()) return true;
  return kernel.sysctl(name.withPid(pidOf(psamp)), psamp.cpu_type) == 0;
}

void keepSizes(ProcessSample& psamp) {
  psamp.resident_prev = psamp.resident;
  psamp.private_virtual_prev = psamp.private_virtual;
  psamp.virtual_size_prev = psamp.virtual_size;
  psamp.private_resident_prev = psamp.private_resident;
  psamp.shared_resident_prev = psamp.shared_resident;
  psamp.empty_virtual_prev = psamp.empty_virtual;
}

bool mustWalk(const ProcessInfo& pinfo, bool walk_regions, std::uint64_t virtual_size) {
  if (walk_regions && pinfo.region_mode != kDoNotForceWalk) return true;
  if (!walk_regions && pinfo.region_mode == kAlwaysWalk) return true;
  if (isNew(pinfo)) return true;
  return pinfo.split && virtual_size < splitWalkLimitBytes(pinfo.psamp.cpu_type);
}

void addThread(ProcessSample& psamp, const ThreadBasicInfo& thread) {
  if (!(thread.flags & kThreadIdle)) {
    psamp.total_time = sum(sum(psamp.total_time, thread.user_time), thread.system_time);
  }
  const ProcessState state = stateOf(thread);
  if (state == kProcessRunning) ++psamp.running_threads;
  psamp.state = std::min<std::uint32_t>(psamp.state, state);
}

void updateThreads(PortName task, ProcessSample& psamp) {
  Kernel& kernel = theKernel();
  const PortName own_task = kernel.mach_task_self();
  PortArray threads;
  if (kernel.task_threads(task, threads) != kKernelSuccess) return;
  const bool has_previous = sampler.tsamp.seq >= 2;
  psamp.threads_prev = has_previous ? psamp.threads : 0;
  psamp.running_threads_prev = has_previous ? psamp.running_threads : 0;
  psamp.threads = static_cast<std::uint32_t>(threads.size());
  sampler.tsamp.threads += psamp.threads;
  psamp.running_threads = 0;
  for (const PortName thread : threads) {
    ThreadBasicInfo info = {};
    if (kernel.thread_info(thread, info) != kKernelSuccess) continue;  // its port stays lent
    addThread(psamp, info);
    kernel.mach_port_deallocate(own_task, thread);
  }
  kernel.mach_vm_deallocate(own_task, threads);
}

void updateTimes(PortName task, ProcessInfo& pinfo, const TaskBasicInfo& basic) {
  ProcessSample& psamp = pinfo.psamp;
  psamp.total_time_prev = psamp.total_time;
  psamp.total_time = sum(basic.user_time, basic.system_time);
  psamp.state = kProcessUnknown;
  updateThreads(task, psamp);
  if (isNew(pinfo)) psamp.total_time_begin = psamp.total_time_prev = psamp.total_time;
}

void updatePorts(PortName task, ProcessSample& psamp) {
  Kernel& kernel = theKernel();
  psamp.ports_prev = psamp.ports;
  PortArray names;
  PortArray types;
  if (kernel.mach_port_names(task, names, types) != kKernelSuccess) return;
  psamp.ports = static_cast<std::uint32_t>(names.size());
  kernel.mach_vm_deallocate(kernel.mach_task_self(), names);
  kernel.mach_vm_deallocate(kernel.mach_task_self(), types);
}

void updateEvents(PortName task, ProcessInfo& pinfo) {
  ProcessSample& psamp = pinfo.psamp;
  psamp.events_prev = psamp.events;
  for (const auto total : kEventTotals) (psamp.*total).value_prev = (psamp.*total).value;
  TaskEventsInfo info = {};
  if (theKernel().task_info(task, info) != kKernelSuccess) return;
  psamp.events = info.counters;
  if (isNew(pinfo)) psamp.events_begin = psamp.events_prev = psamp.events;
  for (std::size_t i = 0; i < kEventTotals.size(); ++i) {
    const auto raw = static_cast<std::uint32_t>(psamp.events[i]);
    EventTotal& total = psamp.*kEventTotals[i];
    if (isNew(pinfo)) total.counter = libtop_i64_init(0, raw);
    libtop_i64_update(total.counter, raw);
    total.value = total.counter.total;
  }
}

void updateKernelMemory(PortName task, ProcessSample& psamp) {
  psamp.kernel_memory_prev = psamp.kernel_memory;
  TaskKernelMemoryInfo info = {.bytes = psamp.kernel_memory};
  theKernel().task_info(task, info);
  psamp.kernel_memory = info.bytes;
}

void updatePower(PortName task, ProcessInfo& pinfo) {
  ProcessSample& psamp = pinfo.psamp;
  psamp.power_prev = psamp.power;
  TaskPowerInfo info = {};
  if (theKernel().task_info(task, info) != kKernelSuccess) return;
  psamp.power = info.values;
  if (isNew(pinfo)) psamp.power_begin = psamp.power_prev = psamp.power;
}

void updateFootprint(PortName task, ProcessSample& psamp) {
  psamp.footprint_prev = psamp.footprint;
  psamp.purgeable_resident_prev = psamp.purgeable_resident;
  TaskVmInfo info = {};
  if (theKernel().task_info(task, info) != kKernelSuccess) return;
  psamp.purgeable_resident = info.purgeable_volatile_resident_bytes;
  psamp.footprint = info.internal_bytes - info.purgeable_volatile_pmap_bytes;
}

void updateWorkQueue(ProcessSample& psamp) {
  if (sampler.tsamp.seq > 1) psamp.workqueue_prev = psamp.workqueue;
  psamp.workqueue = {};
  ProcWorkQueueInfo info = {};
  if (theKernel().proc_pidinfo(pidOf(psamp), info) == 0) return;
  psamp.workqueue = {info.threads, info.running_threads, info.blocked_threads};
}

}  // namespace

int libtop_process_update(PortName task, bool walk_regions) {
  Kernel& kernel = theKernel();
  ProcessTable& processes = sampler.processes;
  std::int32_t pid = 0;
  if (kernel.pid_for_task(task, pid) != kKernelSuccess) return kProcessSkipped;
  KinfoProc kinfo = {};
  if (kinfo_for_pid(kinfo, pid) != 0) return kProcessSkipped;
  ProcessInfo* pinfo = processes.find(pid);
  if (!pinfo) pinfo = processes.insert(pid);
  if (!pinfo) return kProcessOutOfMemory;
  ProcessSample& psamp = pinfo->psamp;

  const ProcessUpdate named = libtop_p_proc_command(*pinfo, kinfo);
  if (named == kProcessOutOfMemory) return named;
  // What goes wrong from here on is a process that has gone.
  const auto drop = [pinfo] {
    sampler.processes.erase(pinfo);
    return kProcessSkipped;
  };
  if (named != kProcessUpdated) return drop();
  storeIdentity(*pinfo, kinfo);
  if (!readProcessorType(psamp)) return drop();
  TaskBasicInfo basic = {};
  if (kernel.task_info(task, basic) != kKernelSuccess) return drop();
  keepSizes(psamp);

  if (mustWalk(*pinfo, walk_regions, basic.virtual_size)) libtop_update_vm_regions(task, *pinfo);
  psamp.resident = basic.resident_size;
  psamp.virtual_size = basic.virtual_size;
  updateTimes(task, *pinfo, basic);
  updatePorts(task, psamp);
  updateEvents(task, *pinfo);
  updateKernelMemory(task, psamp);
  updatePower(task, *pinfo);
  updateFootprint(task, psamp);
  updateWorkQueue(psamp);
  ++sampler.tsamp.state_counts[psamp.state];
  return kProcessUpdated;
}

}  // namespace volorn
