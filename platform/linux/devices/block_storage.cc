#include "platform/linux/devices/block_storage.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "platform/linux/devices/attribute_folder.h"
#include "platform/linux/devices/parse_block_stat.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

// "zd" are the volumes of ZFS, "zloop" zoned loop devices.
constexpr std::array<std::string_view, 9> kNoDisks = {"loop", "zloop",  "ram",  "zram", "md",
                                                      "dm-",  "bcache", "drbd", "zd"};

bool isDisk(const std::string& block_folder, const std::string& name) {
  if (std::ranges::any_of(kNoDisks, [&](auto prefix) { return name.starts_with(prefix); })) return false;
  const std::string folder = block_folder + '/' + name;
  const bool is_stacked = !listFolder(folder + "/slaves").empty();
  return !is_stacked && AttributeFolder(folder).integer("hidden").value_or(0) == 0;
}

PropertyValue counter(std::uint64_t value) {
  return PropertyValue{static_cast<std::int64_t>(value)};
}

}  // namespace

std::vector<std::string> listDisks(const std::string& sys_root) {
  const std::string block_folder = sys_root + "/block";
  std::vector<std::string> disks;
  for (std::string& name : listFolder(block_folder)) {
    if (isDisk(block_folder, name)) disks.push_back(std::move(name));
  }
  return disks;
}

std::optional<PropertyTable> readDisk(const std::string& sys_root, const std::string& name) {
  const FileBytes file = readFile(sys_root + "/block/" + name + "/stat", kAttributeLimitBytes);
  const std::optional<BlockStat> stat = parseBlockStat(file.bytes);
  if (!stat) return std::nullopt;
  const PropertyTable statistics{{std::string(kReadOperationsKey), counter(stat->reads)},
                                 {std::string(kReadBytesKey), counter(stat->read_bytes)},
                                 {std::string(kWriteOperationsKey), counter(stat->writes)},
                                 {std::string(kWriteBytesKey), counter(stat->written_bytes)}};
  return PropertyTable{{std::string(kStatisticsProperty), PropertyValue{statistics}}};
}

}  // namespace volorn::linux_host
