#pragma once

#include <array>
#include <cstdint>

#include "platform/kernel_records.h"
#include "platform/time_stamp.h"

namespace volorn {

// A sum that only grows while its sources live.
struct Total64 {
  std::uint64_t current;
  std::uint64_t begin;     // in the first sample
  std::uint64_t previous;  // in the sample before the latest
};

// The whole machine, as the latest sample found it. Sizes are bytes unless they say otherwise.
struct SystemSample {
  std::uint32_t seq;  // samples taken since the start; 0 before the first
  CpuTicks cpu;
  CpuTicks cpu_begin;            // at the start
  CpuTicks cpu_prev;             // of the read before the latest
  std::array<float, 3> loadavg;  // over 1, 5 and 15 minutes
  TimeStamp time;                // wall clock; of the first sample: that of the start
  TimeStamp time_begin;          // at the start
  TimeStamp time_prev;           // of the sample before the latest
  std::uint32_t threads;         // of all processes
  std::uint64_t page_size;
  std::uint64_t mem_size;
  VmStatistics64 vm;  // what the kernel keeps back at boot is counted as wired
  VmStatistics64 vm_begin;
  VmStatistics64 vm_prev;
  std::uint32_t purgeable_valid;  // 1 when `vm` has its purge counters
  SwapUsage swap;
  std::uint32_t swap_valid;  // 1 when `swap` is of this sample
  std::uint32_t region_count_total;
  std::uint64_t shared_resident_total;
  std::uint64_t private_resident_total;
  std::uint64_t virtual_total;
  std::uint64_t shlib_private_total;  // this field to shlib_readonly: of the last sample asked for them
  std::uint64_t shlib_virtual;
  std::uint32_t shlib_code_regions;
  std::uint64_t shlib_code;  // resident, as shlib_data and shlib_readonly
  std::uint64_t shlib_data;
  std::uint64_t shlib_readonly;
  std::array<std::uint32_t, 8> state_counts;  // processes by ProcessState; slot 0 stays 0
  Total64 net_in_packets;
  Total64 net_out_packets;
  Total64 net_in_bytes;
  Total64 net_out_bytes;
  Total64 disk_read_ops;
  Total64 disk_write_ops;
  Total64 disk_read_bytes;
  Total64 disk_write_bytes;
};

}  // namespace volorn
