#include <cerrno>
#include <cstring>
#include <new>

#include "libtop/sampler.h"

namespace volorn {

Sampler sampler;

namespace {

constexpr std::array<std::int32_t, 2> kMemorySizeName = {6, 24};
constexpr std::array<std::int32_t, 2> kArgumentLimitName = {1, 8};
constexpr std::array<std::string_view, 3> kReservedMemoryNames = {
    "machdep.memmap.Reserved", "machdep.memmap.Unusable", "machdep.memmap.Other"};

// Reserved memory counts in steps of 128 MiB.
constexpr std::uint64_t kReservedStepBytes = std::uint64_t{1} << 27;

int printNothing(void* /*print_arg*/, const char* /*format*/, ...) {
  return 0;
}

// 0 where any of the three sizes is not to be had.
std::uint64_t readReservedBytes() {
  Kernel& kernel = theKernel();
  for (std::size_t i = 0; i < kReservedMemoryNames.size(); ++i) {
    if (!sampler.reserved_memory_names[i].resolve(kernel, kReservedMemoryNames[i])) return 0;
  }
  std::uint64_t total_bytes = 0;
  for (const CachedName& name : sampler.reserved_memory_names) {
    std::uint64_t bytes = 0;
    std::size_t length_bytes = sizeof(bytes);
    if (kernel.sysctl(name.components(), bytes, length_bytes) != 0) return 0;
    if (length_bytes != sizeof(bytes)) return 0;
    total_bytes += bytes;
  }
  return total_bytes;
}

std::uint64_t readReservedPages() {
  const std::uint64_t bytes = readReservedBytes();
  const std::uint64_t page_size = sampler.tsamp.page_size;
  return page_size == 0 ? 0 : bytes / kReservedStepBytes * kReservedStepBytes / page_size;
}

void releaseTables() {
  sampler.shared_objects.clear();
  sampler.processes.clear();
  sampler.cursor = nullptr;
  sampler.texts.clear();
}

bool allocateArgumentBuffer() {
  sampler.argument_buffer.reset();
  sampler.argument_buffer.reset(new (std::nothrow) std::byte[sampler.argument_limit_bytes]);
  return sampler.argument_buffer != nullptr;
}

}  // namespace

bool CachedName::resolve(Kernel& kernel, std::string_view name) {
  if (length_ != 0) return true;
  length_ = kCapacity;
  if (kernel.sysctlnametomib(name, components_.data(), length_) == 0) return true;
  length_ = 0;
  return false;
}

SysctlName CachedName::withPid(std::int32_t pid) {
  components_[length_] = pid;
  return {components_.data(), length_ + 1};
}

int tellSysctlFailure(const char* function) {
  sampler.print(sampler.print_arg, "%s(): Error in sysctl(): %s", function, std::strerror(errno));
  return -1;
}

int tellMachFailure(const char* format, KernelReturn result) {
  sampler.print(sampler.print_arg, format, theKernel().mach_error_string(result));
  return -1;
}

bool readCpuTicks(CpuTicks& ticks) {
  const KernelReturn result = theKernel().host_statistics(sampler.host, ticks);
  if (result != kKernelSuccess) tellMachFailure("Error in host_statistics(): %s", result);
  return result == kKernelSuccess;
}

int libtop_init(PrintFunction print_fn, void* print_arg) {
  Kernel& kernel = theKernel();
  SystemSample& tsamp = sampler.tsamp;
  sampler.print = print_fn ? print_fn : printNothing;
  sampler.print_arg = print_fn ? print_arg : nullptr;
  tsamp.seq = 0;
  sampler.shlib_interval = 1;
  sampler.host = kernel.mach_host_self();
  kernel.host_page_size(sampler.host, tsamp.page_size);

  std::size_t length_bytes = sizeof(tsamp.mem_size);
  if (kernel.sysctl(kMemorySizeName, tsamp.mem_size, length_bytes) != 0) {
    return tellSysctlFailure("libtop_init");
  }
  sampler.reserved_pages = readReservedPages();
  releaseTables();
  if (kernel.sysctl(kArgumentLimitName, sampler.argument_limit_bytes) != 0) {
    return tellSysctlFailure("libtop_init");
  }
  if (!allocateArgumentBuffer()) return -1;
  if (!Current().device_registry.open()) {
    sampler.print(sampler.print_arg, "Error in DeviceRegistryOpen()");
    return -1;
  }
  if (!readCpuTicks(tsamp.cpu_begin)) return -1;
  tsamp.cpu = tsamp.cpu_prev = tsamp.cpu_begin;
  kernel.gettimeofday(tsamp.time_begin);
  tsamp.time = tsamp.time_prev = tsamp.time_begin;
  return 0;
}

void libtop_fini() {
  sampler.argument_buffer.reset();
  releaseTables();
}

const SystemSample* libtop_tsamp() {
  return &sampler.tsamp;
}

}  // namespace volorn
