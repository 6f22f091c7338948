#include <cerrno>
#include <cstring>

#include "libtop/assertion.h"
#include "libtop/sampler.h"

namespace volorn {
namespace {

constexpr std::array<std::int32_t, 2> kSwapUsageName = {2, 5};

// The first sample keeps the time of the start.
int readTime(bool is_first) {
  if (is_first) return 0;
  sampler.tsamp.time_prev = sampler.tsamp.time;
  return theKernel().gettimeofday(sampler.tsamp.time);
}

// Returns 0, or -1 when the set could not be read; then what the kernel lent stays lent.
int updateProcessorSet(PortName set_name, bool walk_regions, bool& out_of_memory) {
  Kernel& kernel = theKernel();
  const PortName own_task = kernel.mach_task_self();
  PortName set = 0;
  if (const KernelReturn result = kernel.host_processor_set_priv(sampler.host, set_name, set)) {
    return tellMachFailure("Error in host_processor_set_priv(): %s", result);
  }
  PortArray tasks;
  if (const KernelReturn result = kernel.processor_set_tasks(set, tasks)) {
    return tellMachFailure("Error in processor_set_tasks(): %s", result);
  }
  // Each set starts the totals afresh: they are those of the last one.
  SystemSample& tsamp = sampler.tsamp;
  tsamp.threads = 0;
  tsamp.region_count_total = 0;
  tsamp.private_resident_total = 0;
  tsamp.virtual_total = 0;
  for (const PortName task : tasks) {
    if (libtop_process_update(task, walk_regions) == kProcessOutOfMemory) out_of_memory = true;
    kernel.mach_port_deallocate(own_task, task);
  }
  kernel.mach_vm_deallocate(own_task, tasks);
  kernel.mach_port_deallocate(own_task, set);
  kernel.mach_port_deallocate(own_task, set_name);
  return 0;
}

int updateProcesses(bool walk_regions) {
  Kernel& kernel = theKernel();
  PortArray set_names;
  if (const KernelReturn result = kernel.host_processor_sets(sampler.host, set_names)) {
    return tellMachFailure("Error in host_processor_sets(): %s", result);
  }
  bool out_of_memory = false;
  for (const PortName set_name : set_names) {
    if (const int result = updateProcessorSet(set_name, walk_regions, out_of_memory)) return result;
  }
  kernel.mach_vm_deallocate(kernel.mach_task_self(), set_names);
  return out_of_memory ? -1 : 0;
}

int readLoadAverages() {
  double averages[3] = {};
  // Offered is the size in bytes, where the call counts elements: it fills three at most.
  if (theKernel().getloadavg(averages, sizeof(averages)) < 0) {
    sampler.print(sampler.print_arg, "Error in getloadavg(): %s", std::strerror(errno));
    return -1;
  }
  for (std::size_t i = 0; i < sampler.tsamp.loadavg.size(); ++i) {
    sampler.tsamp.loadavg[i] = static_cast<float>(averages[i]);
  }
  return 0;
}

void readVmStatistics() {
  SystemSample& tsamp = sampler.tsamp;
  tsamp.vm_prev = tsamp.vm;
  std::uint32_t count = VmStatistics64::kCount;
  if (theKernel().host_statistics64(sampler.host, tsamp.vm, count) != kKernelSuccess) return;
  tsamp.vm.wire_count += static_cast<std::uint32_t>(sampler.reserved_pages);
  tsamp.purgeable_valid = count == VmStatistics64::kCount;
  if (!tsamp.purgeable_valid) {
    tsamp.vm.purges = 0;
    tsamp.vm.purgeable_count = 0;
  }
  if (tsamp.seq == 1) tsamp.vm_prev = tsamp.vm_begin = tsamp.vm;
}

void sumSharedObjects() {
  std::uint64_t pages = 0;
  for (const auto& [id, object] : sampler.shared_objects) {
    const bool counts =
        object.share_mode == ShareMode::copy_on_write || object.share_mode == ShareMode::shared;
    if (counts) pages += static_cast<std::uint64_t>(object.resident_pages);
  }
  sampler.tsamp.shared_resident_total = sampler.tsamp.page_size * pages;
}

void sumProcesses() {
  SystemSample& tsamp = sampler.tsamp;
  tsamp.region_count_total = 0;
  tsamp.private_resident_total = 0;
  tsamp.virtual_total = 0;
  while (const ProcessInfo* pinfo = libtop_piterate()) {
    tsamp.region_count_total += pinfo->psamp.region_count;
    tsamp.private_resident_total += pinfo->psamp.private_resident;
    tsamp.virtual_total += pinfo->psamp.virtual_size;
  }
}

}  // namespace

int libtop_sample(bool walk_regions, bool shlib_totals) {
  SystemSample& tsamp = sampler.tsamp;
  const bool is_first = tsamp.seq++ == 0;
  sampler.cursor = nullptr;
  tsamp.state_counts = {};

  int result = readTime(is_first);
  if (result == 0) result = updateProcesses(walk_regions);
  if (result == 0) result = readLoadAverages();
  tsamp.cpu_prev = tsamp.cpu;  // after a failure too
  if (result != 0) return result;
  readCpuTicks(tsamp.cpu);

  const std::uint32_t interval = sampler.shlib_interval;
  if (shlib_totals && (interval == 1 || tsamp.seq % interval == 1)) sumSharedLibraries();
  readVmStatistics();
  tsamp.swap_valid = theKernel().sysctl(kSwapUsageName, tsamp.swap) == 0;
  sumSharedObjects();
  sumProcesses();
  sumNetworkInterfaces();
  sumDisks();
  return 0;
}

const ProcessInfo* libtop_piterate() {
  const SystemSample& tsamp = sampler.tsamp;
  if (tsamp.seq == 0) assertionFailed("libtop_piterate", 502, "tsamp.seq != 0");
  ProcessTable& processes = sampler.processes;
  ProcessInfo* candidate = sampler.cursor ? processes.next(sampler.cursor) : processes.first();
  while (candidate && candidate->psamp.seq != tsamp.seq) {
    ProcessInfo* gone = candidate;
    candidate = processes.next(gone);
    processes.erase(gone);
  }
  sampler.cursor = candidate;
  return candidate;
}

}  // namespace volorn
