// The Linux kernel's tasks, threads and memory regions.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <utility>

#include "platform/linux/kernel/ports.h"
#include "platform/linux/kernel/ticks.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/page_size.h"

namespace volorn::linux_host {
namespace {

KernelReturn resultFor(int error) {
  return error == ESRCH ? kKernelInvalidArgument : kKernelFailure;
}

KernelReturn failureOf(const Task* task) {
  return task ? resultFor(task->error()) : kKernelInvalidArgument;
}

RunState runStateOf(char letter) {
  switch (letter) {
    case 'R':
      return RunState::running;
    case 'D':
      return RunState::uninterruptible;
    case 'S':
    case 'I':  // a thread of the kernel that waits without counting as load
    case 'P':  // one that is parked
      return RunState::waiting;
    case 'T':
    case 't':
      return RunState::stopped;
    case 'Z':
    case 'X':
      return RunState::halted;
    default:
      return RunState{};
  }
}

struct EndedTicks {
  std::uint64_t user;
  std::uint64_t system;
};

// Of the threads that have ended: the process's less those of its live threads. The kernel splits the time of
// the whole and of each thread by itself, so the parts may not add up, and the threads were read later: with
// their own, the sum is the process's, or the threads' where that is more.
EndedTicks endedTicks(const ProcessStat& process, const std::vector<TaskThread>& threads) {
  std::uint64_t user = 0;
  std::uint64_t system = 0;
  for (const TaskThread& thread : threads) {
    user += thread.user_ticks;
    system += thread.system_ticks;
  }
  const std::uint64_t whole = process.user_ticks + process.system_ticks;
  const std::uint64_t ended = whole - std::min(whole, user + system);
  const std::uint64_t ended_user = std::min(ended, process.user_ticks - std::min(process.user_ticks, user));
  return {.user = ended_user, .system = ended - ended_user};
}

std::uint64_t nanoseconds(std::uint64_t ticks) {
  const TimeStamp time = timeOfTicks(ticks);
  return static_cast<std::uint64_t>(time.seconds) * 1'000'000'000 +
         static_cast<std::uint64_t>(time.microseconds) * 1000;
}

// The counters of a task wrap at 32 bits.
std::int32_t wrapped(std::uint64_t count) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(count));
}

// A thread of the kernel executes no file, which is no refusal. Nor is a file that its file system shows to
// nobody else, as long as the link to it can be read.
KernelReturn rightTo(Task& task) {
  const int error = task.executable().error;
  if (task.error()) return resultFor(task.error());
  char path = 0;
  const bool is_shown = error == 0 || error == ENOENT || readlinkat(task.folder(), "exe", &path, 1) >= 0;
  return is_shown ? kKernelSuccess : resultFor(error);
}

// As the folder of processes numbers them, which may be those of another namespace. 0 when it is not there.
std::int32_t ownPid(const std::string& proc_root) {
  std::array<char, 16> digits = {};
  std::int32_t pid = 0;
  const ssize_t length = readlink((proc_root + "/self").c_str(), digits.data(), digits.size());
  std::from_chars(digits.data(), digits.data() + std::max<ssize_t>(length, 0), pid);
  return pid;
}

}  // namespace

PortName LinuxKernel::lentPort(PortName task) {
  Tasks& all = tasks();
  if (task != kOwnTaskPort) return task;
  const std::int32_t pid = all.own == 0 ? ownPid(proc_root_) : 0;
  if (pid > 0) all.own = all.ports.lendTask(pid);
  return all.own;
}

Task* LinuxKernel::taskOf(PortName port) {
  return tasks().ports.task(lentPort(port));
}

PortName LinuxKernel::mach_task_self() {
  return kOwnTaskPort;
}

KernelReturn LinuxKernel::host_processor_sets(PortName host, PortArray& set_names) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (host != kHostPort) return kKernelInvalidArgument;
    std::vector<PortName>& names = arrays_.lend();
    names.push_back(kProcessorSetNamePort);
    set_names = names;
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::host_processor_set_priv(PortName host, PortName set_name, PortName& set) {
  if (host != kHostPort || set_name != kProcessorSetNamePort) return kKernelInvalidArgument;
  set = kProcessorSetPort;
  return kKernelSuccess;
}

KernelReturn LinuxKernel::processor_set_tasks(PortName set, PortArray& tasks_of_set) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (set != kProcessorSetPort) return kKernelInvalidArgument;
    if (readProcesses() != 0) return kKernelFailure;
    Tasks& all = tasks();
    if (all.own != 0) all.ports.handBack(std::exchange(all.own, 0));
    all.reader.remembered.beginSample(all.pids);
    all.reader.files.setRoom(all.reader.remembered.roomForFiles());
    std::vector<PortName>& ports = arrays_.lend();
    ports.reserve(all.pids.size());
    all.ports.reserve(all.pids.size());
    for (const std::int32_t pid : all.pids) ports.push_back(all.ports.lendTask(pid));
    tasks_of_set = ports;
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_for_pid(PortName own_task, std::int32_t pid, PortName& task) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (own_task != kOwnTaskPort) return kKernelInvalidArgument;
    TaskPorts& ports = tasks().ports;
    const PortName port = askedTask(pid) ? std::exchange(tasks().asked, 0) : ports.lendTask(pid);
    const KernelReturn result = rightTo(*ports.task(port));
    if (result == kKernelSuccess) {
      task = port;
    } else {
      ports.handBack(port);
    }
    return result;
  });
}

KernelReturn LinuxKernel::pid_for_task(PortName task, std::int32_t& pid) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    const Task* named = taskOf(task);
    if (!named) return kKernelInvalidArgument;
    pid = named->pid();
    tasks().named = lentPort(task);
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskBasicInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const ProcessStat* stat = task ? task->stat() : nullptr;
    const ProcessStatus* status = stat ? task->status() : nullptr;
    const std::vector<TaskThread>* threads = status ? task->threads() : nullptr;
    if (!threads) return failureOf(task);
    const EndedTicks ended = endedTicks(*stat, *threads);
    record = {.suspend_count = 0,
              .virtual_size = status->virtual_bytes,
              .resident_size = status->resident_bytes,
              .user_time = timeOfTicks(ended.user),
              .system_time = timeOfTicks(ended.system),
              .policy = 0};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskResidentSize& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const std::optional<std::uint64_t> resident_bytes = task ? task->residentBytes() : std::nullopt;
    if (!resident_bytes) return failureOf(task);
    record = {.resident_size = *resident_bytes};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskEventsInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const std::optional<std::uint64_t> switches = task ? task->contextSwitches() : std::nullopt;
    const ProcessStat* stat = switches ? task->stat() : nullptr;
    if (!stat) return failureOf(task);
    record = {};
    record.counters[kTaskEventFaults] = wrapped(stat->minor_faults + stat->major_faults);
    record.counters[kTaskEventPageins] = wrapped(stat->major_faults);
    record.counters[kTaskEventContextSwitches] = wrapped(*switches);
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskKernelMemoryInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const ProcessStatus* status = task ? task->status() : nullptr;
    const ProcessStat* stat = status ? task->stat() : nullptr;
    if (!stat) return failureOf(task);
    record = {
        .bytes = {status->page_table_bytes + stat->threads * tasks().reader.kernel_stack_bytes, 0, 0, 0}};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskPowerInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const ProcessStat* stat = task ? task->stat() : nullptr;
    if (!stat) return failureOf(task);
    record = {.values = {nanoseconds(stat->user_ticks), nanoseconds(stat->system_ticks), 0, 0, 0, 0}};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskVmInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const ProcessStatus* status = task ? task->status() : nullptr;
    if (!status) return failureOf(task);
    record = {.internal_bytes = status->anonymous_bytes,
              .purgeable_volatile_pmap_bytes = 0,
              .purgeable_volatile_resident_bytes = 0};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_info(PortName port, TaskExtmodInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const int folder = task ? task->folder() : -1;
    if (folder < 0) return failureOf(task);
    const Executable& executable = task->executable();
    const BuildId id =
        executable.error == 0 ? tasks().reader.build_ids.of(executable.identity, folder) : BuildId{};
    // A process that has ended meanwhile is none without an executable.
    if (id == BuildId{} && !task->isThere()) return failureOf(task);
    record = {.task_uuid = id};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::task_threads(PortName port, PortArray& threads) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const std::vector<TaskThread>* live = task ? task->threads() : nullptr;
    if (!live) return failureOf(task);
    std::vector<PortName>& ports = arrays_.lend();
    tasks().ports.lendThreads(lentPort(port), live->size(), ports);
    threads = ports;
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::thread_info(PortName port, ThreadBasicInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    const std::optional<TaskPorts::Thread> place = tasks().ports.thread(port);
    if (!place) return kKernelInvalidArgument;
    const std::vector<TaskThread>* threads = place->task->threads();
    if (!threads) return failureOf(place->task);
    const TaskThread& thread = threads->at(place->index);
    const RunState run_state = runStateOf(thread.state);
    record = {
        .user_time = timeOfTicks(thread.user_ticks),
        .system_time = timeOfTicks(thread.system_ticks),
        .run_state = run_state,
        .flags = 0,  // no idle thread is to be seen
        .sleep_time_seconds = run_state == RunState::waiting ? place->task->sleepSeconds(place->index) : 0};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::mach_port_names(PortName port, PortArray& names, PortArray& types) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    Task* task = taskOf(port);
    const std::optional<std::uint64_t> count = task ? task->descriptors() : std::nullopt;
    if (!count) return failureOf(task);
    for (PortArray* array : {&names, &types}) {
      std::vector<PortName>& lent = arrays_.lend();
      lent.resize(static_cast<std::size_t>(*count));
      *array = lent;
    }
    return kKernelSuccess;
  });
}

const ProcessRegion* LinuxKernel::regionPast(PortName port, std::uint64_t& address, std::uint64_t& size,
                                             RegionWalk walk, KernelReturn& failure) {
  Task* task = taskOf(port);
  const ProcessRegion* region = task ? task->regionPast(address, walk) : nullptr;
  if (region) {
    address = region->address;
    size = region->size_bytes;
  } else {
    failure = task && !task->error() ? kKernelInvalidAddress : failureOf(task);
  }
  return region;
}

KernelReturn LinuxKernel::mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                         RegionTopInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    KernelReturn failure = kKernelFailure;
    const ProcessRegion* region = regionPast(task, address, size, RegionWalk::of_task, failure);
    if (!region) return failure;
    record = region->info;
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::mach_vm_region(PortName task, std::uint64_t& address, std::uint64_t& size,
                                         RegionBasicInfo& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    KernelReturn failure = kKernelFailure;
    const ProcessRegion* region = regionPast(task, address, size, RegionWalk::of_task, failure);
    if (!region) return failure;
    record = {.reserved = region->reserved};
    return kKernelSuccess;
  });
}

bool LinuxKernel::regionGroups(PortName port, std::span<const RegionGroup>& groups) {
  return call(false, [&]() -> bool {
    Task* task = taskOf(port);
    const std::vector<RegionGroup>* found = task ? task->regionGroups() : nullptr;
    if (found) groups = *found;
    return found;
  });
}

KernelReturn LinuxKernel::mach_vm_region_recurse(PortName task, std::uint64_t& address, std::uint64_t& size,
                                                 std::uint32_t& depth, SubmapInfo64& record) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    KernelReturn failure = kKernelFailure;
    const ProcessRegion* region = regionPast(task, address, size, RegionWalk::of_own_task, failure);
    if (!region) return failure;
    depth = 0;
    record = {.protection = region->protection,
              .pages_resident = region->info.private_pages_resident + region->info.shared_pages_resident,
              .share_mode = region->info.share_mode};
    return kKernelSuccess;
  });
}

KernelReturn LinuxKernel::mach_port_deallocate(PortName own_task, PortName port) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (own_task != kOwnTaskPort) return kKernelInvalidArgument;
    if (port >= kHostPort && port <= kProcessorSetPort) return kKernelSuccess;
    Tasks& all = tasks();
    if (all.named == port) all.named = 0;
    return all.ports.handBack(port) ? kKernelSuccess : kKernelInvalidArgument;
  });
}

KernelReturn LinuxKernel::mach_vm_deallocate(PortName own_task, PortArray array) {
  return call(kKernelFailure, [&]() -> KernelReturn {
    if (own_task != kOwnTaskPort || !arrays_.handBack(array)) return kKernelInvalidArgument;
    return kKernelSuccess;
  });
}

const char* LinuxKernel::mach_error_string(KernelReturn result) {
  switch (result) {
    case kKernelSuccess:
      return "success";
    case kKernelInvalidAddress:
      return "invalid address";
    case kKernelInvalidArgument:
      return "invalid argument";
    case kKernelFailure:
      return "failure";
    default:
      return "unknown error code";
  }
}

}  // namespace volorn::linux_host
