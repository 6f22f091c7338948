#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// A disk's counters since it came.
struct BlockStat {
  std::uint64_t reads = 0;
  std::uint64_t read_bytes = 0;
  std::uint64_t writes = 0;
  std::uint64_t written_bytes = 0;
};

// The text of /sys/block/DISK/stat: reads, those merged, sectors of 512 bytes whatever the disk's own, time;
// then the same of writes:
//      74189    18394  4149498    36211   158194    16686  6138040    21182        0    17620    61466
std::optional<BlockStat> parseBlockStat(std::string_view text);

}  // namespace volorn::linux_host
