#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/device_registry.h"

namespace volorn::linux_host {

// The names in <sys_root>/block of the whole disks. Left out are devices of memory (ram, zram), devices made
// of others (loop, md, device-mapper, bcache, whatever names others as its `slaves`), whose traffic theirs
// would count again, and the hidden paths to a disk that has several. Disks of a network (nbd, rbd) and the
// boot partitions of a memory card, which count apart from the card, are disks.
std::vector<std::string> listDisks(const std::string& sys_root);

// The properties of a disk: kStatisticsProperty. None when the disk has gone or its counters cannot be read.
std::optional<PropertyTable> readDisk(const std::string& sys_root, const std::string& name);

}  // namespace volorn::linux_host
