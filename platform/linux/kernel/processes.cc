// The Linux kernel's answers about a process by its pid.
#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/numbered_entries.h"
#include "platform/linux/kernel/sysctl_names.h"
#include "platform/linux/kernel/ticks.h"
#include "platform/linux/linux_kernel.h"

namespace volorn::linux_host {
namespace {

// Calls that answer with a length fail with 0.
int noBytes(int error) {
  errno = error;
  return 0;
}

// `hidepid=1` lists processes that it does not show. Of one that has ended since nobody can tell whether it
// was such a one.
bool isShown(int proc_folder, std::int32_t pid) {
  constexpr std::string_view kFile = "/stat";
  std::array<char, 24> name = {};
  std::ranges::copy(kFile, std::to_chars(name.begin(), name.end(), pid).ptr);
  return faccessat(proc_folder, name.data(), F_OK, 0) == 0;
}

TimeStamp timeOfStart(std::uint64_t start_ticks, std::int64_t boot_time_microseconds) {
  TimeStamp started = timeOfTicks(start_ticks);
  const std::int64_t microseconds = boot_time_microseconds + started.microseconds;
  started.seconds += microseconds / 1'000'000;
  started.microseconds = static_cast<std::int32_t>(microseconds % 1'000'000);
  return started;
}

}  // namespace

LinuxKernel::Tasks& LinuxKernel::tasks() {
  if (!tasks_) tasks_.emplace(proc_root_, region_source_);
  return *tasks_;
}

Task& LinuxKernel::taskOf(std::int32_t pid) {
  Tasks& all = tasks();
  Task* named = all.ports.task(all.named);
  if (named && named->pid() == pid) return *named;
  if (all.asked != 0) all.ports.handBack(all.asked);
  all.asked = all.ports.lendTask(pid);
  return *all.ports.task(all.asked);
}

// Null unless the process is the one that was asked about last.
Task* LinuxKernel::askedTask(std::int32_t pid) {
  Tasks& all = tasks();
  Task* asked = all.ports.task(all.asked);
  return asked && asked->pid() == pid ? asked : nullptr;
}

void LinuxKernel::rememberProcesses(std::size_t most_bytes) {
  constexpr rlim_t kForOthers = 64;
  rlimit descriptors = {};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlim_t most_files = (descriptors.rlim_cur - std::min(descriptors.rlim_cur, kForOthers)) / 2;
  const std::lock_guard lock(mutex_);
  tasks().reader.remembered.remember(most_bytes,
                                     static_cast<std::size_t>(std::min<rlim_t>(most_files, SIZE_MAX)));
}

void LinuxKernel::forgetObjects() {
  const std::lock_guard lock(mutex_);
  if (tasks_) tasks_->reader.regions.forgetObjectsBut(tasks_->reader.remembered.objectIds());
}

std::optional<LinuxKernel::Notes> LinuxKernel::notesOn(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  const RememberedProcesses::Process* known = tasks_ ? tasks_->reader.remembered.find(pid) : nullptr;
  if (!known) return std::nullopt;
  return Notes{.start_ticks = known->start_ticks,
               .regions_are_known = known->regions_are_known,
               .descriptors_are_known = known->descriptors_are_known};
}

int LinuxKernel::sysctl(SysctlName name, KinfoProc& record) {
  return call(-1, [&]() -> int {
    const std::optional<std::int32_t> pid = pidBehind(name, kProcessName);
    if (!pid) return failed(ENOENT);
    Task& task = taskOf(*pid);
    const ProcessStat* stat = task.stat();
    const ProcessStatus* status = task.status();
    if (!stat || !status) return failed(task.error());
    record = {.uid = status->effective_uid,
              .ppid = static_cast<std::uint32_t>(stat->parent),
              .pgid = static_cast<std::uint32_t>(stat->group),
              .flags = stat->flags,
              .started = timeOfStart(stat->start_ticks, tasks().reader.boot_time.microseconds()),
              .command = {}};
    stat->name().copy(record.command.data(), record.command.size() - 1);
    return 0;
  });
}

int LinuxKernel::sysctl(SysctlName name, std::byte* buffer, std::size_t& length_bytes) {
  return call(-1, [&]() -> int {
    if (is(name, kInterfaceListName)) return readInterfaceList(buffer, length_bytes);
    const std::optional<std::int32_t> pid = pidBehind(name, kArgumentsName);
    return pid ? readArguments(taskOf(*pid), buffer, length_bytes) : failed(ENOENT);
  });
}

int LinuxKernel::readArguments(Task& task, std::byte* buffer, std::size_t& length_bytes) {
  const int folder = task.folder();
  if (folder < 0) return failed(task.error());
  std::array<char, PATH_MAX> path = {};
  const ssize_t path_length = readlinkat(folder, "exe", path.data(), path.size() - 1);
  const std::size_t path_bytes = static_cast<std::size_t>(std::max<ssize_t>(path_length, 0)) + 1;
  const std::size_t most_bytes = buffer ? length_bytes : FileBuffer::kLimitBytes;
  if (const int error = buffer_.read(folder, "cmdline", most_bytes)) {
    return failed(error == ENOENT ? ESRCH : error);
  }
  const std::string_view arguments = buffer_.text();
  if (!buffer) {
    length_bytes = path_bytes + arguments.size();
    return 0;
  }
  const std::size_t of_path = std::min(path_bytes, length_bytes);
  const std::size_t of_arguments = std::min(arguments.size(), length_bytes - of_path);
  std::memcpy(buffer, path.data(), of_path);
  std::memcpy(buffer + of_path, arguments.data(), of_arguments);
  length_bytes = of_path + of_arguments;
  return 0;
}

int LinuxKernel::readProcesses() {
  const FileDescriptor folder(open(proc_root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return errno;
  std::vector<std::int32_t>& pids = tasks().pids;
  const int error = listNumberedEntries(folder.get(), pids);
  if (geteuid() != 0) std::erase_if(pids, [&](std::int32_t pid) { return !isShown(folder.get(), pid); });
  return error;
}

int LinuxKernel::proc_listpids(std::uint32_t type, std::uint32_t /*type_info*/, std::int32_t* buffer,
                               int size_bytes) {
  return call(0, [&]() -> int {
    constexpr std::size_t kProcessesThatMayCome =
        64;  // until another thread's call, which may come in between
    if (type != kProcAllPids) return noBytes(EINVAL);
    // The list that the size was told of: one read later might not fit, and what is cut off may have been
    // there all the time.
    const bool is_counted = std::exchange(tasks().pids_are_counted, false);
    if (const int error = buffer && is_counted ? 0 : readProcesses()) return noBytes(error);
    const std::vector<std::int32_t>& pids = tasks().pids;
    if (!buffer) {
      tasks().pids_are_counted = true;
      return static_cast<int>((pids.size() + kProcessesThatMayCome) * sizeof(pids[0]));
    }
    const std::size_t room = static_cast<std::size_t>(std::max(size_bytes, 0)) / sizeof(pids[0]);
    const std::size_t filled = std::min(pids.size(), room);
    std::copy_n(pids.begin(), filled, buffer);
    return static_cast<int>(filled * sizeof(pids[0]));
  });
}

int LinuxKernel::proc_name(std::int32_t pid, char* buffer, std::uint32_t size_bytes) {
  return call(0, [&]() -> int {
    Task& task = taskOf(pid);
    const std::string_view name = task.readName();
    if (task.error()) return noBytes(task.error());
    if (size_bytes == 0) return noBytes(ENOMEM);
    const std::size_t length = name.copy(buffer, size_bytes - 1);
    buffer[length] = '\0';
    return static_cast<int>(length);
  });
}

int LinuxKernel::proc_pidinfo(std::int32_t pid, ProcTaskAllInfo& /*record*/) {
  return call(0, [&]() -> int {
    Task* asked = askedTask(pid);
    Task& task = asked ? *asked : taskOf(pid);
    return task.residentBytes() ? ProcTaskAllInfo::kSizeBytes : noBytes(task.error());
  });
}

// Linux keeps no threads for a process's work queues.
int LinuxKernel::proc_pidinfo(std::int32_t pid, ProcWorkQueueInfo& record) {
  return call(0, [&]() -> int {
    Task& task = taskOf(pid);
    if (!task.stat()) return noBytes(task.error());
    record = {};
    return ProcWorkQueueInfo::kSizeBytes;
  });
}

}  // namespace volorn::linux_host
