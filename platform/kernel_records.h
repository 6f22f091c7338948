#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

#include "platform/time_stamp.h"

// What the kernel fills in, one struct a flavour: `kFlavour` is the number that the call of this name takes
// in the kernel's own terms and `kCount` the size it reports, in 32-bit words. A record holds the fields that
// somebody reads, not the kernel's layout. What a host does not count is 0.
namespace volorn {

// host_statistics: clock ticks of all processors together since the system started. They wrap.
struct CpuTicks {
  static constexpr int kFlavour = 3;
  static constexpr std::uint32_t kCount = 4;

  std::uint32_t user;
  std::uint32_t system;
  std::uint32_t idle;
  std::uint32_t nice;

  friend constexpr bool operator==(const CpuTicks&, const CpuTicks&) = default;
};

// host_statistics64: pages by what they are used for, and events since the system started.
struct VmStatistics64 {
  static constexpr int kFlavour = 4;
  static constexpr std::uint32_t kCount = 38;

  std::uint32_t free_count;  // pages, as every field up to wire_count
  std::uint32_t active_count;
  std::uint32_t inactive_count;
  std::uint32_t wire_count;
  std::uint64_t zero_fill_count;
  std::uint64_t reactivations;
  std::uint64_t pageins;
  std::uint64_t pageouts;
  std::uint64_t faults;
  std::uint64_t cow_faults;
  std::uint64_t purges;
  std::uint32_t purgeable_count;  // pages

  friend constexpr bool operator==(const VmStatistics64&, const VmStatistics64&) = default;
};

// sysctl {2, 5}.
struct SwapUsage {
  std::uint64_t total_bytes;
  std::uint64_t available_bytes;
  std::uint64_t used_bytes;
  std::uint32_t page_size_bytes;
  std::uint32_t encrypted;

  friend constexpr bool operator==(const SwapUsage&, const SwapUsage&) = default;
};
static_assert(sizeof(SwapUsage) == 32);

// sysctl {1, 14, 1, pid}: the kernel's own record of a process.
struct KinfoProc {
  std::uint32_t uid;  // effective
  std::uint32_t ppid;
  std::uint32_t pgid;
  std::uint32_t flags;
  TimeStamp started;             // since 1 January 1970 UTC
  std::array<char, 17> command;  // ends in a NUL; any other byte may stand in it
};

// task_info, basic, as 64-bit processors have it.
struct TaskBasicInfo {
  static constexpr int kFlavour = 18;
  static constexpr std::uint32_t kCount = 10;

  std::uint32_t suspend_count;
  std::uint64_t virtual_size;   // bytes
  std::uint64_t resident_size;  // bytes
  TimeStamp user_time;          // of threads that have ended, as system_time
  TimeStamp system_time;
  std::int32_t policy;
};

// task_info, basic, for who wants its resident size alone: a host may have that for less than the rest.
struct TaskResidentSize {
  static constexpr bool kIs64Bit = sizeof(void*) == 8;
  static constexpr int kFlavour = kIs64Bit ? TaskBasicInfo::kFlavour : 4;
  static constexpr std::uint32_t kCount = kIs64Bit ? TaskBasicInfo::kCount : 8;

  std::uint64_t resident_size;  // bytes
};

// Slots of TaskEventsInfo.
enum TaskEvent : std::size_t {
  kTaskEventFaults,
  kTaskEventPageins,
  kTaskEventCowFaults,
  kTaskEventMessagesSent,
  kTaskEventMessagesReceived,
  kTaskEventSyscallsMach,
  kTaskEventSyscallsBsd,
  kTaskEventContextSwitches,
  kTaskEventCount
};

// task_info: counts since the task began, by TaskEvent. They wrap at 32 bits.
struct TaskEventsInfo {
  static constexpr int kFlavour = 2;
  static constexpr std::uint32_t kCount = 8;

  std::array<std::int32_t, kTaskEventCount> counters;
};
static_assert(kTaskEventCount == TaskEventsInfo::kCount);

// task_info: bytes of kernel memory: private allocated, private freed, shared allocated, shared freed.
struct TaskKernelMemoryInfo {
  static constexpr int kFlavour = 7;
  static constexpr std::uint32_t kCount = 8;

  std::array<std::uint64_t, 4> bytes;
};

// task_info: user time and system time (in the host's own unit), then wake-ups: by interrupts, by the idle
// platform, by timers in two bins.
struct TaskPowerInfo {
  static constexpr int kFlavour = 21;
  static constexpr std::uint32_t kCount = 12;

  std::array<std::uint64_t, 6> values;
};

// task_info.
struct TaskVmInfo {
  static constexpr int kFlavour = 23;
  static constexpr std::uint32_t kCount = 36;

  std::uint64_t internal_bytes;                     // anonymous memory
  std::uint64_t purgeable_volatile_pmap_bytes;      // of it, what the kernel may drop: in the page tables
  std::uint64_t purgeable_volatile_resident_bytes;  // and in memory
};

// task_info.
struct TaskExtmodInfo {
  static constexpr int kFlavour = 19;
  static constexpr std::uint32_t kCount = 16;

  std::array<std::uint8_t, 16> task_uuid;  // of the executable image; zeros when it has none
};

// Run states of a thread. Others may come.
enum class RunState : std::int32_t { running = 1, stopped = 2, waiting = 3, uninterruptible = 4, halted = 5 };

// Bit of ThreadBasicInfo::flags: a processor's idle thread.
inline constexpr std::uint32_t kThreadIdle = 2;

// thread_info.
struct ThreadBasicInfo {
  static constexpr int kFlavour = 3;
  static constexpr std::uint32_t kCount = 10;

  TimeStamp user_time;
  TimeStamp system_time;
  RunState run_state;
  std::uint32_t flags;
  std::int32_t sleep_time_seconds;  // since the thread last ran
};

// How a region's pages are shared.
enum class ShareMode : std::uint32_t {
  copy_on_write = 1,
  private_pages = 2,
  empty = 3,
  shared = 4,
  true_shared = 5,
  private_aliased = 6,
  shared_aliased = 7,
  large_page = 8
};

// mach_vm_region.
struct RegionTopInfo {
  static constexpr int kFlavour = 12;
  static constexpr std::uint32_t kCount = 5;

  std::uint32_t object_id;  // of the memory object behind the region
  std::uint32_t ref_count;  // how many map that object
  std::uint32_t private_pages_resident;
  std::uint32_t shared_pages_resident;
  ShareMode share_mode;
};

// Regions of a task that count alike, added up: see Kernel::regionGroups.
struct RegionGroup {
  RegionTopInfo info;        // the pages of all of them
  std::uint64_t size_bytes;  // of all of them
  std::uint32_t regions;     // how many they are
  bool is_library;           // they lie where the task's processor type has its shared libraries
};

// mach_vm_region.
struct RegionBasicInfo {
  static constexpr int kFlavour = 10;
  static constexpr std::uint32_t kCount = 9;

  std::uint32_t reserved;  // not 0: address space put aside without memory
};

// Bits of SubmapInfo64::protection.
inline constexpr std::uint32_t kProtectionWrite = 2;
inline constexpr std::uint32_t kProtectionExecute = 4;

// mach_vm_region_recurse.
struct SubmapInfo64 {
  static constexpr std::uint32_t kCount = 17;

  std::uint32_t protection;
  std::uint32_t pages_resident;
  ShareMode share_mode;
};

// proc_pidinfo: the combined record of a process and its task. That it can be had is all anybody asks.
struct ProcTaskAllInfo {
  static constexpr int kFlavour = 2;
  static constexpr int kSizeBytes = 232;
};

// proc_pidinfo: the threads that the kernel keeps for a process's work queues.
struct ProcWorkQueueInfo {
  static constexpr int kFlavour = 12;
  static constexpr int kSizeBytes = 16;

  std::uint32_t threads;
  std::uint32_t running_threads;
  std::uint32_t blocked_threads;
  std::uint32_t state;
};
static_assert(sizeof(ProcWorkQueueInfo) == ProcWorkQueueInfo::kSizeBytes);

// Offsets and kinds in the messages of sysctl {4, 17, 0, 0, 6, 0}. Each message begins with its length in
// bytes (16 bits) and carries its type in byte 3; all numbers are in the host's byte order.
namespace interface_message {
inline constexpr std::size_t kTypeOffset = 3;
inline constexpr std::uint8_t kInformation64 = 18;  // one link, with 64-bit counters at these offsets:
inline constexpr std::size_t kPacketsReceivedOffset = 56;
inline constexpr std::size_t kPacketsSentOffset = 72;
inline constexpr std::size_t kBytesReceivedOffset = 96;
inline constexpr std::size_t kBytesSentOffset = 104;
inline constexpr std::size_t kInformation64Bytes = 112;  // at least
}  // namespace interface_message

}  // namespace volorn
