#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "libtop/libtop.h"
#include "libtop/process_table.h"
#include "libtop/shared_objects.h"
#include "platform/services.h"

namespace volorn {

// A system value's numeric name, resolved once in the life of the process.
class CachedName {
 public:
  static constexpr std::size_t kCapacity = 12;

  // False when it cannot be resolved; the next call tries again.
  bool resolve(Kernel& kernel, std::string_view name);

  // Empty until it is resolved.
  SysctlName components() const { return {components_.data(), length_}; }

  // With a pid behind it.
  SysctlName withPid(std::int32_t pid);

 private:
  std::array<std::int32_t, kCapacity + 1> components_ = {};
  std::size_t length_ = 0;
};

// All that the sampler keeps.
struct Sampler {
  PrintFunction print = nullptr;
  void* print_arg = nullptr;
  PortName host = 0;
  std::uint32_t shlib_interval = 0;  // samples from one sum of the shared libraries to the next
  std::uint64_t reserved_pages = 0;  // kept back by the kernel, counted as wired
  std::uint32_t argument_limit_bytes = 0;
  std::unique_ptr<std::byte[]> argument_buffer;
  std::array<CachedName, 3> reserved_memory_names;
  CachedName processor_type_name;
  ProcessTable processes;
  ProcessInfo* cursor = nullptr;  // the record that libtop_piterate returned last; null: begin at the first
  SharedObjects shared_objects;
  std::unordered_map<std::uint64_t, std::string> texts;  // part of the agreed state; nobody stores any
  SystemSample tsamp = {};
};

extern Sampler sampler;

inline Kernel& theKernel() {
  return Current().kernel;
}

// Tells of a system call in `function` that has just failed, by errno. Returns -1.
int tellSysctlFailure(const char* function);

// Tells of a kernel call that failed: `format` has a place for the words of `result`. Returns -1.
int tellMachFailure(const char* format, KernelReturn result);

// Reads the processor ticks of all time; a failure is told and leaves them.
bool readCpuTicks(CpuTicks& ticks);

// The steps of a sample that sum up what lies outside the processes.
void sumSharedLibraries();
void sumNetworkInterfaces();
void sumDisks();

// The command name of a process, for processes of the legacy launcher that of the program it runs.
// kProcessSkipped, after a message: the arguments could not be read.
ProcessUpdate libtop_p_proc_command(ProcessInfo& pinfo, const KinfoProc& kinfo);

// Walks the process's regions. Out of memory it stores nothing.
void libtop_update_vm_regions(PortName task, ProcessInfo& pinfo);

// The virtual size below which a process of this type, its shared-library range split, is walked again; 0:
// never.
std::uint64_t splitWalkLimitBytes(std::uint32_t cpu_type);

}  // namespace volorn
