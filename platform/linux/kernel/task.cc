#include "platform/linux/kernel/task.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

#include "platform/linux/kernel/kernel_stack.h"
#include "platform/linux/kernel/numbered_entries.h"
#include "platform/linux/kernel/parse_auxv.h"
#include "platform/linux/kernel/parse_process_statm.h"
#include "platform/linux/page_size.h"

namespace volorn::linux_host {
namespace {

// The name of a thread's file below the process's folder, without taking memory for it.
class ThreadFileName {
 public:
  explicit ThreadFileName(std::int32_t thread, std::string_view file = {}) {
    constexpr std::string_view kFolder = "task/";
    char* at = std::copy(kFolder.begin(), kFolder.end(), text_.begin());
    at = std::to_chars(at, text_.end(), thread).ptr;
    *at++ = '/';
    *std::copy(file.begin(), file.end(), at) = '\0';
  }
  const char* get() const { return text_.data(); }

 private:
  std::array<char, 32> text_ = {};
};

TaskThread threadFrom(std::int32_t id, const ProcessStat& stat) {
  return {.id = id,
          .state = stat.state,
          .processor = stat.processor,
          .start_ticks = stat.start_ticks,
          .user_ticks = stat.user_ticks,
          .system_ticks = stat.system_ticks};
}

}  // namespace

TaskReader::TaskReader(const std::string& proc, RegionSource region_source)
    : proc_root(proc), cpu_clocks(proc), files(proc), regions(region_source) {
  utsname kernel = {};
  uname(&kernel);
  kernel_stack_bytes = kernelStackBytes(kernel.machine, pageSizeBytes());
  struct stat own = {};
  kernel_counts_descriptors = ::stat((proc + "/self/fd").c_str(), &own) == 0 && own.st_size > 0;
}

void Task::begin(std::int32_t pid) {
  remember();
  close();
  pid_ = pid;
  error_ = 0;
  first_thread_has_ended_ = false;
  identity_.reset();
  stat_.reset();
  status_.reset();
  resident_bytes_.reset();
  executable_.reset();
  cpu_type_.reset();
  threads_are_read_ = false;
  marks_are_read_ = false;
  is_recalled_ = false;
  context_switches_.reset();
  descriptors_.reset();
  regions_walk_.reset();
  groups_.reset();
}

void Task::close() {
  for (FileDescriptor* folder : {&folder_, &thread_folder_}) {
    *folder = FileDescriptor();
    reader_.open_folders.leave(*folder);
  }
}

bool Task::fail(int error) {
  // A process that ends takes its files with it.
  error_ = error == ENOENT ? ESRCH : error;
  close();
  return false;
}

bool Task::open() {
  if (error_) return false;
  if (folder_) return true;
  reader_.open_folders.enter(folder_);
  std::array<char, 16> digits = {};
  char* const end = std::to_chars(digits.begin(), digits.end(), pid_).ptr;
  reader_.path.assign(reader_.proc_root).append(1, '/').append(digits.data(), end);
  folder_ = FileDescriptor(::open(reader_.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat found = {};
  if (!folder_ || fstat(folder_.get(), &found) != 0) return fail(errno);
  const FolderIdentity identity = {static_cast<std::int64_t>(found.st_ino), found.st_ctim.tv_sec,
                                   found.st_ctim.tv_nsec};
  const bool is_same = identity_ ? *identity_ == identity : !stat_;
  identity_ = identity;
  if (is_same) return true;
  return stat_ ? readStat() : fail(ESRCH);
}

// False when there is none but the first.
bool Task::openLiveThread() {
  const FileDescriptor list(openat(folder_.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!list || listNumberedEntries(list.get(), reader_.thread_ids) != 0) return false;
  reader_.open_folders.leave(thread_folder_);
  reader_.open_folders.enter(thread_folder_);
  for (const std::int32_t id : reader_.thread_ids) {
    if (id == pid_) continue;
    thread_folder_ =
        FileDescriptor(openat(folder_.get(), ThreadFileName(id).get(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (thread_folder_) return true;
  }
  return false;
}

int Task::folder() {
  if (!open()) return -1;
  if (first_thread_has_ended_ && !thread_folder_) openLiveThread();
  return thread_folder_ ? thread_folder_.get() : folder_.get();
}

bool Task::readStat() {
  if (const int error = reader_.buffer.readRecord(folder_.get(), "stat")) return fail(error);
  const std::optional<ProcessStat> read = parseProcessStat(reader_.buffer.text());
  if (!read) return fail(EIO);
  // No thread is left of a process whose last moment this is.
  const bool is_gone = read->threads == 0 || (stat_ && stat_->start_ticks != read->start_ticks);
  if (is_gone) return fail(ESRCH);
  if (!stat_) stat_ = read;
  if (read->state == 'Z' && read->threads > 1) first_thread_has_ended_ = true;
  return true;
}

bool Task::isThere() {
  return open() && (faccessat(folder_.get(), "stat", F_OK, 0) == 0 || fail(errno));
}

std::string_view Task::readName() {
  if (!open()) return {};
  if (const int error = reader_.buffer.readRecord(folder_.get(), "comm")) fail(error);
  std::string_view text = reader_.buffer.text();
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

const ProcessStat* Task::stat() {
  if (!stat_ && !error_ && !recall() && open()) readStat();
  return stat_ && !error_ ? &*stat_ : nullptr;
}

const ProcessStatus* Task::status() {
  if (!status_) {
    if (!stat()) return nullptr;
    if (const int error = reader_.buffer.readRecord(folder(), "status")) {
      fail(error);
      return nullptr;
    }
    status_ = parseProcessStatus(reader_.buffer.text());
    if (!status_) fail(EIO);
  }
  return error_ ? nullptr : &*status_;
}

std::optional<std::uint64_t> Task::residentBytes() {
  if (!resident_bytes_) {
    resident_bytes_ = readResidentBytes();
    if (resident_bytes_ == 0 && !first_thread_has_ended_ && openLiveThread()) {
      first_thread_has_ended_ = true;
      resident_bytes_ = readResidentBytes();
    }
  }
  return error_ ? std::nullopt : resident_bytes_;
}

std::optional<std::uint64_t> Task::readResidentBytes() {
  const int at = folder();
  const int error = at < 0 ? error_ : reader_.buffer.readRecord(at, "statm");
  const auto pages = error ? std::nullopt : parseProcessPages(reader_.buffer.text());
  if (pages) return pages->resident * pageSizeBytes();
  fail(error ? error : EIO);
  return std::nullopt;
}

const Executable& Task::executable() {
  if (!executable_) {
    const int at = folder();
    executable_ = at >= 0 ? findExecutable(at) : Executable{.error = error_};
  }
  return *executable_;
}

const std::vector<TaskThread>* Task::threads() {
  if (threads_are_read_) return error_ ? nullptr : &threads_;
  const ProcessStat* process = stat();
  if (!process) return nullptr;
  threads_.clear();
  if (process->threads == 1) {
    threads_.push_back(threadFrom(pid_, *process));
  } else if (!open() || !readThreads()) {
    return nullptr;
  }
  threads_are_read_ = true;
  return &threads_;
}

bool Task::readThreads() {
  const FileDescriptor list(openat(folder_.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!list) return fail(errno);
  if (const int error = listNumberedEntries(list.get(), reader_.thread_ids)) return fail(error);
  for (const std::int32_t id : reader_.thread_ids) {
    if (!readThread(id)) return false;
  }
  return threads_.empty() ? fail(ESRCH) : true;
}

// A thread that has gone is left out.
bool Task::readThread(std::int32_t id) {
  const int error = reader_.buffer.readRecord(folder_.get(), ThreadFileName(id, "stat").get());
  if (error == ENOENT || error == ESRCH) return true;
  if (error) return fail(error);
  const std::optional<ProcessStat> stat = parseProcessStat(reader_.buffer.text());
  if (!stat) return fail(EIO);
  threads_.push_back(threadFrom(id, *stat));
  return true;
}

std::optional<ThreadSchedule> Task::schedule(std::size_t thread) {
  TaskThread& wanted = threads_.at(thread);
  if (!wanted.schedule_is_read && open()) {
    wanted.schedule_is_read = true;
    // That of an only thread is the process's, too, and sooner found there.
    const bool is_only = threads_.size() == 1 && wanted.id == pid_;
    const int error = reader_.buffer.readRecord(folder_.get(),
                                                is_only ? "sched" : ThreadFileName(wanted.id, "sched").get());
    if (!error) wanted.schedule = parseSchedule(reader_.buffer.text());
  }
  return wanted.schedule;
}

// Of a thread that is not running, or was not when its state was read.
std::optional<std::int64_t> Task::lastRanMs(std::size_t thread) {
  const bool is_only = threads_.size() == 1 && threads_[0].id == pid_;
  // Read before the schedule: a switch in between makes what is remembered too old, never too new.
  const ProcessStatus* only = is_only && stat_ ? status() : nullptr;
  std::optional<RememberedProcesses::LastRun>* remembered = nullptr;
  if (only) {
    remembered = &reader_.remembered.of(pid_, stat_->start_ticks).last_run;
    if (*remembered && (*remembered)->context_switches == only->context_switches) {
      return (*remembered)->last_ran_ms;
    }
  }
  const std::optional<ThreadSchedule> known = schedule(thread);
  if (!known) return std::nullopt;
  if (remembered)
    *remembered = {.context_switches = only->context_switches, .last_ran_ms = known->last_ran_ms};
  return known->last_ran_ms;
}

std::int32_t Task::sleepSeconds(std::size_t thread) {
  const TaskThread& sleeper = threads_.at(thread);
  const std::optional<std::int64_t> last_ran_ms = lastRanMs(thread);
  if (!last_ran_ms || *last_ran_ms == 0) return 0;
  const std::optional<std::int64_t> now_ms = reader_.cpu_clocks.nowMs(sleeper.processor);
  const std::int64_t seconds = now_ms ? (*now_ms - *last_ran_ms) / 1000 : 0;
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(seconds, 0, std::numeric_limits<std::int32_t>::max()));
}

std::optional<std::uint64_t> Task::contextSwitches() {
  const std::vector<TaskThread>* all = threads();
  if (!all) return std::nullopt;
  if (context_switches_) return context_switches_;
  reader_.switches.clear();
  for (std::size_t i = 0; i < all->size(); ++i) {
    if (!readSwitches(i)) return std::nullopt;
  }
  SwitchCounts& counts = reader_.remembered.of(pid_, stat_->start_ticks).switches;
  context_switches_ = counts.totalWith(reader_.switches, stat_->start_code);
  return context_switches_;
}

// Appends those of the thread. Nothing of one that has gone.
bool Task::readSwitches(std::size_t thread) {
  const TaskThread& wanted = threads_[thread];
  std::uint64_t count = 0;
  if (threads_.size() == 1 && wanted.id == pid_) {
    const ProcessStatus* only = status();
    if (!only) return false;
    count = only->context_switches;
  } else if (const auto known = schedule(thread)) {
    count = known->context_switches;
  } else {
    // A kernel may be built without telling schedules.
    if (!open()) return false;
    const int error = reader_.buffer.readRecord(folder_.get(), ThreadFileName(wanted.id, "status").get());
    if (error == ENOENT || error == ESRCH) return true;
    const auto status = error ? std::nullopt : parseProcessStatus(reader_.buffer.text());
    if (!status) return false;
    count = status->context_switches;
  }
  reader_.switches.push_back(
      {.id = wanted.id, .start_ticks = static_cast<std::uint32_t>(wanted.start_ticks), .switches = count});
  return true;
}

std::optional<std::uint64_t> Task::descriptors() {
  if (!stat()) return std::nullopt;
  if (!descriptors_) {
    const int at = folder();
    descriptors_ = at < 0 ? std::nullopt : countDescriptors(at, "fd");
    reader_.remembered.of(pid_, stat_->start_ticks).descriptors_are_known = descriptors_->has_value();
  }
  return *descriptors_;
}

std::optional<std::uint64_t> Task::countDescriptors(int folder, const char* name) {
  if (reader_.kernel_counts_descriptors) {
    struct stat status = {};
    if (fstatat(folder, name, &status, 0) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
  }
  const FileDescriptor list(openat(folder, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::int64_t count = list ? countEntries(list.get()) : -1;
  return count < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(count));
}

std::optional<std::uint32_t> Task::processorType() {
  const ProcessStat* process = stat();
  if (!process) return std::nullopt;
  if (!cpu_type_) cpu_type_ = readProcessorType(*process);
  return error_ ? std::nullopt : cpu_type_;
}

// 0 when it is not known. For want of descriptors or of memory that may be otherwise next time.
std::uint32_t Task::readProcessorType(const ProcessStat& process) {
  auto& remembered = reader_.remembered.of(pid_, process.start_ticks).processor_type;
  if (remembered && remembered->start_code == process.start_code) return remembered->cpu_type;
  const int at = folder();
  if (at < 0) return 0;
  const int error = reader_.buffer.readRecord(at, "auxv");
  if (error == EMFILE || error == ENFILE || error == ENOMEM) return 0;
  const std::uint32_t cpu_type = error ? 0 : processorTypeOf(reader_.buffer.text());
  remembered = {.start_code = process.start_code, .cpu_type = cpu_type};
  return cpu_type;
}

const ProcessRegion* Task::regionPast(std::uint64_t address, RegionWalk walk) {
  if ((regions_walk_ != walk && !readRegions(walk)) || error_) return nullptr;
  const auto found = std::partition_point(regions_.begin(), regions_.end(), [&](const ProcessRegion& region) {
    return region.address + region.size_bytes <= address;
  });
  return found == regions_.end() ? nullptr : &*found;
}

// Where the executable's code lies. A first thread that has ended tells nothing of it.
std::uint64_t Task::startCode(const ProcessStat& process) {
  if (!first_thread_has_ended_) return process.start_code;
  const int at = folder();
  const bool is_read = at >= 0 && reader_.buffer.readRecord(at, "stat") == 0;
  const auto stat = is_read ? parseProcessStat(reader_.buffer.text()) : std::nullopt;
  return stat ? stat->start_code : process.start_code;
}

bool Task::readRegions(RegionWalk walk) {
  regions_walk_.reset();
  const auto note = [&](bool are_known) {
    if (walk != RegionWalk::of_task || !stat_) return;
    reader_.remembered.of(pid_, stat_->start_ticks).regions_are_known = are_known;
  };
  const ProcessStat* process = stat();
  note(false);  // until they are read, and when the process is gone or memory runs out meanwhile
  if (!process) return false;
  const ProcessStatus* memory = status();
  const std::optional<std::uint32_t> cpu_type = processorType();
  if (!memory || !cpu_type) return false;
  const RegionOwner owner = {.pid = pid_,
                             .start_ticks = process->start_ticks,
                             .start_code = startCode(*process),
                             .cpu_type = *cpu_type,
                             .mapped_pages = memory->virtual_bytes / pageSizeBytes(),
                             .resident_pages = memory->resident_bytes / pageSizeBytes()};
  note(reader_.regions.read(folder(), owner, walk, regions_));
  regions_walk_ = walk;
  return true;
}

}  // namespace volorn::linux_host
