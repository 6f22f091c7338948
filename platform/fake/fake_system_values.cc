// The fake kernel's POSIX side: system values, processes by pid.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/fake/fake_kernel.h"

namespace volorn::fake {
namespace {

constexpr std::int32_t kReservedMemoryName = 100;  // then which of the kinds
constexpr std::int32_t kProcessorTypeName = 101;   // then 0s, then the pid

constexpr std::string_view kReservedMemoryPrefix = "machdep.memmap.";
constexpr std::array<std::string_view, 3> kReservedMemoryKinds = {"Reserved", "Unusable", "Other"};

bool is(SysctlName name, std::initializer_list<std::int32_t> components) {
  return std::equal(name.begin(), name.end(), components.begin(), components.end());
}

// The pid behind a name, or kNoProcess.
std::int32_t pidBehind(SysctlName name, std::initializer_list<std::int32_t> components) {
  const bool fits = name.size() == components.size() + 1;
  return fits && is(name.first(components.size()), components) ? name.back() : FakeKernel::kNoProcess;
}

int failed(int code) {
  errno = code;
  return -1;
}

// The calls that answer with a length fail with 0.
int noBytes(int code) {
  errno = code;
  return 0;
}

template <std::size_t size>
void putAt(std::string& message, std::size_t offset, const std::array<char, size>& bytes) {
  std::copy(bytes.begin(), bytes.end(), message.begin() + static_cast<std::ptrdiff_t>(offset));
}

}  // namespace

std::string FakeKernel::interfaceMessage(std::array<std::uint64_t, 4> counters, std::uint8_t type) {
  constexpr std::array<std::size_t, 4> kOffsets = {
      interface_message::kPacketsReceivedOffset, interface_message::kPacketsSentOffset,
      interface_message::kBytesReceivedOffset, interface_message::kBytesSentOffset};
  std::string message(160, '\xEE');
  putAt(message, 0, std::bit_cast<std::array<char, 2>>(static_cast<std::uint16_t>(message.size())));
  message[interface_message::kTypeOffset] = static_cast<char>(type);
  for (std::size_t i = 0; i < counters.size(); ++i) {
    putAt(message, kOffsets[i], std::bit_cast<std::array<char, 8>>(counters[i]));
  }
  return message;
}

int FakeKernel::systemCall(std::string_view call) {
  calls_.emplace_back(call);
  return failureOf(calls_.back().c_str());
}

int FakeKernel::getloadavg(double samples[], int count) {
  calls_.push_back("getloadavg " + std::to_string(count));
  if (const int code = failureOf("getloadavg")) return failed(code);
  const int filled = std::min({load_averages_result, count, static_cast<int>(load_averages.size())});
  std::copy_n(load_averages.begin(), std::max(filled, 0), samples);
  return filled;
}

int FakeKernel::gettimeofday(TimeStamp& now) {
  if (const int code = systemCall("gettimeofday")) return failed(code);
  now = time;
  return 0;
}

int FakeKernel::sysctlbyname(std::string_view name, std::int32_t& value) {
  if (const int code = systemCall("sysctlbyname " + std::string(name))) return failed(code);
  const auto found = system_values.find(name);
  if (found == system_values.end()) return failed(ENOENT);
  value = found->second;
  return 0;
}

int FakeKernel::sysctlnametomib(std::string_view name, std::int32_t components[], std::size_t& length) {
  if (const int code = systemCall("sysctlnametomib " + std::string(name))) return failed(code);
  const auto kind = name.starts_with(kReservedMemoryPrefix)
                        ? std::find(kReservedMemoryKinds.begin(), kReservedMemoryKinds.end(),
                                    name.substr(kReservedMemoryPrefix.size()))
                        : kReservedMemoryKinds.end();
  const bool processor_type = name == "sysctl.proc_cputype";
  const std::size_t needed = processor_type ? processor_type_name_length : 2;
  if (kind == kReservedMemoryKinds.end() && !processor_type) return failed(ENOENT);
  if (length < needed) return failed(ENOMEM);
  length = needed;
  std::fill_n(components, needed, 0);
  if (needed > 0) components[0] = processor_type ? kProcessorTypeName : kReservedMemoryName;
  if (!processor_type) components[1] = static_cast<std::int32_t>(kind - kReservedMemoryKinds.begin());
  return 0;
}

int FakeKernel::sysctl(SysctlName name, std::uint32_t& value) {
  if (is(name, {1, 8})) {
    if (const int code = systemCall("sysctl 1.8")) return failed(code);
    value = argument_limit_bytes;
    return 0;
  }
  const bool processor_type = name.size() == processor_type_name_length + 1 && name[0] == kProcessorTypeName;
  if (!processor_type) return failed(ENOENT);
  if (const int code = failureOf("sysctl sysctl.proc_cputype", name.back())) return failed(code);
  const FakeTask* task = taskOf(name.back());
  if (!task) return failed(ESRCH);
  value = task->cpu_type;
  return 0;
}

int FakeKernel::sysctl(SysctlName name, std::uint64_t& value, std::size_t& length_bytes) {
  if (is(name, {6, 24})) {
    if (const int code = systemCall("sysctl 6.24")) return failed(code);
    value = memory_bytes;
    length_bytes = sizeof(value);
    return 0;
  }
  if (name.size() != 2 || name[0] != kReservedMemoryName) return failed(ENOENT);
  const std::string_view kind = kReservedMemoryKinds.at(static_cast<std::size_t>(name[1]));
  const std::string call = "sysctl " + std::string(kReservedMemoryPrefix) + std::string(kind);
  if (const int code = systemCall(call)) return failed(code);
  const auto found = reserved_bytes.find(kind);
  if (found == reserved_bytes.end()) return failed(ENOENT);
  value = found->second;
  length_bytes = reserved_length_bytes;
  return 0;
}

int FakeKernel::sysctl(SysctlName name, SwapUsage& record) {
  if (!is(name, {2, 5})) return failed(ENOENT);
  if (const int code = systemCall("sysctl 2.5")) return failed(code);
  record = swap;
  return 0;
}

int FakeKernel::sysctl(SysctlName name, KinfoProc& record) {
  const std::int32_t pid = pidBehind(name, {1, 14, 1});
  if (pid == kNoProcess) return failed(ENOENT);
  if (const int code = failureOf("sysctl 1.14.1", pid)) return failed(code);
  const FakeTask* task = taskOf(pid);
  if (!task) return failed(ESRCH);
  record = task->process;
  return 0;
}

int FakeKernel::sysctl(SysctlName name, std::byte* buffer, std::size_t& length_bytes) {
  const bool interfaces = is(name, {4, 17, 0, 0, 6, 0});
  const std::int32_t pid = pidBehind(name, {1, 49});
  const FakeTask* task = taskOf(pid);
  if (!interfaces && !task) return failed(ESRCH);
  const int code =
      interfaces ? systemCall(buffer ? "sysctl 4.17" : "sysctl 4.17 size") : failureOf("sysctl 1.49", pid);
  if (code) return failed(code);
  const std::string& source = interfaces ? interface_list : task->arguments;
  if (buffer) {
    if (interfaces && source.size() > length_bytes) return failed(ENOMEM);
    length_bytes = std::min(length_bytes, source.size());
    std::memcpy(buffer, source.data(), length_bytes);
  } else {
    length_bytes = source.size();
  }
  return 0;
}

int FakeKernel::proc_listpids(std::uint32_t type, std::uint32_t /*type_info*/, std::int32_t* buffer,
                              int size_bytes) {
  if (const int code = systemCall(buffer ? "proc_listpids" : "proc_listpids size")) return failed(code);
  if (type != kProcAllPids) return failed(EINVAL);
  constexpr int kEntryBytes = sizeof(std::int32_t);
  if (!buffer) return pid_list_size_bytes.value_or(static_cast<int>(tasks.size()) * kEntryBytes);
  int filled_bytes = 0;
  for (const auto& [pid, task] : tasks) {
    if (filled_bytes + kEntryBytes > size_bytes) break;
    *buffer++ = pid;
    filled_bytes += kEntryBytes;
  }
  return filled_bytes;
}

int FakeKernel::proc_name(std::int32_t pid, char* buffer, std::uint32_t size_bytes) {
  if (const int code = failureOf("proc_name", pid)) return noBytes(code);
  const FakeTask* task = taskOf(pid);
  if (!task || size_bytes == 0) return noBytes(ESRCH);
  const std::string_view name = task->long_name.empty() ? task->command() : task->long_name;
  const std::size_t length = name.copy(buffer, size_bytes - 1);
  buffer[length] = '\0';
  return static_cast<int>(length);
}

int FakeKernel::proc_pidinfo(std::int32_t pid, ProcTaskAllInfo& /*record*/) {
  if (const int code = failureOf("proc_pidinfo 2", pid)) return noBytes(code);
  return taskOf(pid) ? ProcTaskAllInfo::kSizeBytes : noBytes(ESRCH);
}

int FakeKernel::proc_pidinfo(std::int32_t pid, ProcWorkQueueInfo& record) {
  if (const int code = failureOf("proc_pidinfo 12", pid)) return noBytes(code);
  const FakeTask* task = taskOf(pid);
  if (!task) return noBytes(ESRCH);
  record = task->work_queue;
  return ProcWorkQueueInfo::kSizeBytes;
}

}  // namespace volorn::fake
