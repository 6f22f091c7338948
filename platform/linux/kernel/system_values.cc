// The Linux kernel's figures of the whole system.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "platform/linux/kernel/parse_net_dev.h"
#include "platform/linux/kernel/parse_system_stat.h"
#include "platform/linux/kernel/parse_vmstat.h"
#include "platform/linux/kernel/ports.h"
#include "platform/linux/kernel/sysctl_names.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/page_size.h"
#include "platform/linux/parse_meminfo.h"
#include "platform/snapshot_keys.h"

namespace volorn::linux_host {
namespace {

// However large a process's stack may grow, Linux gives no more of it to arguments and environment.
constexpr std::uint32_t kArgumentLimitBytes = 6 << 20;

// Whole percent, 0 to 100. `total` is not 0.
std::int32_t percentOf(std::uint64_t part, std::uint64_t total) {
  if (part >= total) return 100;
  const bool overflows = part > std::numeric_limits<std::uint64_t>::max() / 100;
  return static_cast<std::int32_t>(overflows ? part / (total / 100) : part * 100 / total);
}

std::uint32_t cutTo32Bits(std::uint64_t value) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(value, UINT32_MAX));
}

template <typename Number>
void putAt(std::byte* message, std::size_t offset, Number number) {
  std::memcpy(message + offset, &number, sizeof(number));
}

void putLink(std::byte* message, const LinkCounters& link) {
  using namespace interface_message;
  std::memset(message, 0, kInformation64Bytes);
  putAt(message, 0, static_cast<std::uint16_t>(kInformation64Bytes));
  putAt(message, kTypeOffset, kInformation64);
  putAt(message, kPacketsReceivedOffset, link.received_packets);
  putAt(message, kPacketsSentOffset, link.sent_packets);
  putAt(message, kBytesReceivedOffset, link.received_bytes);
  putAt(message, kBytesSentOffset, link.sent_bytes);
}

}  // namespace

int LinuxKernel::readSystemFile(const char* name) {
  return buffer_.read(AT_FDCWD, (proc_root_ + name).c_str());
}

int LinuxKernel::getloadavg(double samples[], int count) {
  struct sysinfo info = {};
  if (system_info_(&info) != 0) return -1;
  const int filled = std::clamp(count, 0, static_cast<int>(std::size(info.loads)));
  for (int i = 0; i < filled; ++i) samples[i] = static_cast<double>(info.loads[i]) / (1 << SI_LOAD_SHIFT);
  return filled;
}

int LinuxKernel::gettimeofday(TimeStamp& now) {
  timespec time = {};
  if (clock_gettime(CLOCK_REALTIME, &time) != 0) return -1;
  now = {.seconds = time.tv_sec, .microseconds = static_cast<std::int32_t>(time.tv_nsec / 1000)};
  return 0;
}

int LinuxKernel::sysctlbyname(std::string_view name, std::int32_t& value) {
  return call(-1, [&]() -> int {
    if (name != "kern.memorystatus_level") return failed(ENOENT);
    if (stand_ins_) stand_ins_->note(snapshot_key::kJetsamLevel, false);  // when memory runs out meanwhile
    const int result = readMemoryLevel(value);
    if (stand_ins_) stand_ins_->note(snapshot_key::kJetsamLevel, result == 0);
    return result;
  });
}

int LinuxKernel::readMemoryLevel(std::int32_t& percent) {
  if (const int error = readSystemFile("/meminfo")) return failed(error);
  const MemoryInfo info = parseMemoryInfo(buffer_.text());
  if (!info.available_kib || info.total_kib.value_or(0) == 0) return failed(ENOENT);
  percent = percentOf(*info.available_kib, *info.total_kib);
  return 0;
}

int LinuxKernel::sysctlnametomib(std::string_view name, std::int32_t components[], std::size_t& length) {
  if (name != "sysctl.proc_cputype") return failed(ENOENT);
  if (length < kProcessorTypeName.size()) return failed(ENOMEM);
  std::ranges::copy(kProcessorTypeName, components);
  length = kProcessorTypeName.size();
  return 0;
}

int LinuxKernel::sysctl(SysctlName name, std::uint32_t& value) {
  return call(-1, [&]() -> int {
    if (is(name, kArgumentLimitName)) {
      value = kArgumentLimitBytes;
      return 0;
    }
    const std::optional<std::int32_t> pid = pidBehind(name, kProcessorTypeName);
    if (!pid) return failed(ENOENT);
    Task& task = taskOf(*pid);
    const std::optional<std::uint32_t> cpu_type = task.processorType();
    if (!cpu_type) return failed(task.error());
    value = *cpu_type;
    return 0;
  });
}

int LinuxKernel::sysctl(SysctlName name, std::uint64_t& value, std::size_t& length_bytes) {
  return call(-1, [&]() -> int {
    if (!is(name, kMemorySizeName)) return failed(ENOENT);
    if (length_bytes < sizeof(value)) return failed(ENOMEM);
    if (const int error = readSystemFile("/meminfo")) return failed(error);
    const MemoryInfo info = parseMemoryInfo(buffer_.text());
    if (!info.total_kib) return failed(ENOENT);
    value = *info.total_kib * 1024;
    length_bytes = sizeof(value);
    return 0;
  });
}

int LinuxKernel::sysctl(SysctlName name, SwapUsage& record) {
  return call(-1, [&]() -> int {
    if (!is(name, kSwapUsageName)) return failed(ENOENT);
    if (const int error = readSystemFile("/meminfo")) return failed(error);
    const MemoryInfo info = parseMemoryInfo(buffer_.text());
    if (!info.swap_total_kib || !info.swap_free_kib) return failed(ENOENT);
    const std::uint64_t free_kib = std::min(*info.swap_free_kib, *info.swap_total_kib);
    record = {.total_bytes = *info.swap_total_kib * 1024,
              .available_bytes = free_kib * 1024,
              .used_bytes = (*info.swap_total_kib - free_kib) * 1024,
              .page_size_bytes = cutTo32Bits(pageSizeBytes()),
              .encrypted = 0};
    return 0;
  });
}

int LinuxKernel::readInterfaceList(std::byte* buffer, std::size_t& length_bytes) {
  constexpr std::size_t kLinksThatMayCome = 4;  // between the call for the size and that for the list
  if (const int error = readSystemFile("/net/dev")) return failed(error);
  const std::optional<std::vector<LinkCounters>> links = parseNetDev(buffer_.text());
  if (!links) return failed(EIO);
  constexpr std::size_t kMessageBytes = interface_message::kInformation64Bytes;
  if (!buffer) {
    length_bytes = (links->size() + kLinksThatMayCome) * kMessageBytes;
    return 0;
  }
  if (length_bytes < links->size() * kMessageBytes) return failed(ENOMEM);
  for (const LinkCounters& link : *links) {
    putLink(buffer, link);
    buffer += kMessageBytes;
  }
  length_bytes = links->size() * kMessageBytes;
  return 0;
}

PortName LinuxKernel::mach_host_self() {
  return kHostPort;
}

KernelReturn LinuxKernel::host_page_size(PortName host, std::uint64_t& page_size) {
  if (host != kHostPort) return kKernelInvalidArgument;
  page_size = pageSizeBytes();
  return kKernelSuccess;
}

KernelReturn LinuxKernel::host_statistics(PortName host, CpuTicks& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (host != kHostPort) return kKernelInvalidArgument;
    if (readSystemFile("/stat") != 0) return kKernelFailure;
    const std::optional<SystemTicks> ticks = parseSystemTicks(buffer_.text());
    if (!ticks) return kKernelFailure;
    idle_ticks_ = std::max(idle_ticks_, ticks->idle);
    // The record's counters wrap.
    record = {.user = static_cast<std::uint32_t>(ticks->user),
              .system = static_cast<std::uint32_t>(ticks->system),
              .idle = static_cast<std::uint32_t>(idle_ticks_),
              .nice = static_cast<std::uint32_t>(ticks->nice)};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::host_statistics64(PortName host, VmStatistics64& record, std::uint32_t& count) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (host != kHostPort || count < VmStatistics64::kCount) return kKernelInvalidArgument;
    if (readSystemFile("/meminfo") != 0) return kKernelFailure;
    const MemoryInfo memory = parseMemoryInfo(buffer_.text());
    if (readSystemFile("/vmstat") != 0) return kKernelFailure;
    const std::optional<VmCounters> counters = parseVmCounters(buffer_.text());
    if (!counters || !memory.total_kib || !memory.free_kib || !memory.active_kib || !memory.inactive_kib) {
      return kKernelFailure;
    }
    const std::uint64_t page_kib = pageSizeBytes() / 1024;
    const std::uint64_t not_wired_kib = *memory.free_kib + *memory.active_kib + *memory.inactive_kib;
    const std::uint64_t wired_kib = *memory.total_kib - std::min(*memory.total_kib, not_wired_kib);
    record = {.free_count = cutTo32Bits(*memory.free_kib / page_kib),
              .active_count = cutTo32Bits(*memory.active_kib / page_kib),
              .inactive_count = cutTo32Bits(*memory.inactive_kib / page_kib),
              .wire_count = cutTo32Bits(wired_kib / page_kib),
              .zero_fill_count = 0,
              .reactivations = counters->activations,
              .pageins = counters->read_kib / page_kib,
              .pageouts = counters->written_kib / page_kib,
              .faults = counters->faults,
              .cow_faults = 0,
              .purges = 0,
              .purgeable_count = 0};
    count = VmStatistics64::kCount;
    return kKernelSuccess;
  });
}

}  // namespace volorn::linux_host
