#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/boot_time.h"
#include "platform/linux/kernel/build_ids.h"
#include "platform/linux/kernel/cpu_clocks.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/kernel/open_folders.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/kernel/parse_process_status.h"
#include "platform/linux/kernel/parse_schedule.h"
#include "platform/linux/kernel/process_files.h"
#include "platform/linux/kernel/remembered_processes.h"
#include "platform/linux/kernel/switch_counts.h"
#include "platform/linux/kernel/task_thread.h"
#include "platform/linux/regions/process_regions.h"

namespace volorn::linux_host {

// What all tasks are read with.
struct TaskReader {
  TaskReader(const std::string& proc, RegionSource region_source);

  std::string proc_root;
  bool kernel_counts_descriptors;    // as the size of /proc/PID/fd: since Linux 6.2
  std::uint64_t kernel_stack_bytes;  // of a thread
  std::string path;                  // passing
  FileBuffer buffer;
  OpenFolders open_folders;
  BootTime boot_time;
  CpuClocks cpu_clocks;
  ProcessFiles files;
  RememberedProcesses remembered;
  BuildIds build_ids;
  ProcessRegions regions;
  std::vector<std::int32_t> thread_ids;        // passing
  std::vector<SwitchCounts::Thread> switches;  // passing
};

// One process, read while it runs. Each of its files is read once, at the first call that needs it. All is
// read through the process's folder, which the kernel never gives to another process; when the folder has to
// be opened anew, the time when the process began tells whether it is still the same. A process that is found
// gone stays gone, whatever has its pid now: the calls then fail, with errno in error().
//
// Where the reader remembers processes, one none of whose threads has run since it was read before is not
// read: its marks are, and what is remembered serves.
//
// It serves one process after another, from begin() to begin(), and keeps the memory that it has taken.
class Task {
 public:
  explicit Task(TaskReader& reader) : reader_(reader) {}
  ~Task() { close(); }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  // Takes up a process. Nothing is read yet. What was read of another is forgotten, or remembered.
  void begin(std::int32_t pid);

  std::int32_t pid() const { return pid_; }
  int error() const { return error_; }

  // Whether the process is there still.
  bool isThere();

  // What the process is called, any bytes. Lasts until anything else is read. Empty as well when it cannot be
  // read, or when the process is gone.
  std::string_view readName();

  // Null when it cannot be read, or when the process is gone.
  const ProcessStat* stat();
  const ProcessStatus* status();

  // Told for less than status() tells it. None as above.
  std::optional<std::uint64_t> residentBytes();

  // The live threads. Null as above; otherwise there is one at least. The first thread of a process of one
  // bears the times of threads that have ended too.
  const std::vector<TaskThread>* threads();

  // Read once. With an error as well when the process is gone.
  const Executable& executable();

  // None where the kernel does not show it. `thread` is one of threads().
  std::optional<ThreadSchedule> schedule(std::size_t thread);

  // Since a thread that waits ran last; 0 where the kernel does not tell.
  std::int32_t sleepSeconds(std::size_t thread);

  // Of all live threads, and of those ended since they were asked about before. None when they cannot be
  // read.
  std::optional<std::uint64_t> contextSwitches();

  // How many descriptors the process has open. None without the right to know.
  std::optional<std::uint64_t> descriptors();

  // 0 when it is not known. None when the process is gone.
  std::optional<std::uint32_t> processorType();

  // The first region that ends past the address. Null when there is none, and when the process is gone.
  // Throws std::bad_alloc.
  const ProcessRegion* regionPast(std::uint64_t address, RegionWalk walk);

  // The regions in groups, as Kernel::regionGroups has them, where the reader remembers processes. Null else,
  // and when the process is gone. Throws std::bad_alloc.
  const std::vector<RegionGroup>* regionGroups();

  // The open folder where its memory and its files are told of; negative when the process is gone. Once the
  // first thread has ended before others, that is the folder of one of them: the process's own then tells
  // nothing of either.
  int folder();

 private:
  // Inode, and when the kernel made it (seconds, nanoseconds): never that of another process. Only when the
  // kernel is short of memory does the same process get another.
  using FolderIdentity = std::array<std::int64_t, 3>;

  bool recall();
  bool othersHaveChanged(RememberedProcesses::Process& process);
  bool hasRested() const;
  void remember();
  bool open();
  bool openLiveThread();
  std::optional<std::uint64_t> readResidentBytes();
  bool readStat();
  bool readThreads();
  bool readThread(std::int32_t id);
  std::optional<std::int64_t> lastRanMs(std::size_t thread);
  bool readSwitches(std::size_t thread);
  std::uint32_t readProcessorType(const ProcessStat& process);
  std::uint64_t startCode(const ProcessStat& process);
  std::optional<std::uint64_t> countDescriptors(int folder, const char* name);
  bool readRegions(RegionWalk walk);
  bool fail(int error);
  void close();

  TaskReader& reader_;
  std::int32_t pid_ = 0;
  int error_ = 0;
  FileDescriptor folder_;
  FileDescriptor thread_folder_;
  bool first_thread_has_ended_ = false;  // and others live
  std::optional<FolderIdentity> identity_;
  std::optional<ProcessStat> stat_;
  std::optional<ProcessStatus> status_;
  std::optional<std::uint64_t> resident_bytes_;
  std::optional<Executable> executable_;
  std::optional<std::uint32_t> cpu_type_;  // one answer for as long as the port is lent, known or not
  std::vector<TaskThread> threads_;
  bool threads_are_read_ = false;
  bool marks_are_read_ = false;  // before all else
  bool is_recalled_ = false;     // and not read
  std::vector<RunMark> marks_;
  std::optional<std::uint64_t> context_switches_;
  std::optional<std::optional<std::uint64_t>> descriptors_;
  std::optional<RegionWalk> regions_walk_;  // for which they were read
  std::vector<ProcessRegion> regions_;
  std::optional<std::vector<RegionGroup>> groups_;
};

}  // namespace volorn::linux_host
