#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/device_registry.h"

namespace volorn::linux_host {

// The names in <sys_root>/block of the whole disks. Left out are devices of memory (ram, zram), devices made
// of others (loop, md, device-mapper), whose traffic theirs would count again, and the hidden paths to a disk
// that has several.
std::vector<std::string> listDisks(const std::string& sys_root);

// The properties of a disk: kStatisticsProperty. None when the disk has gone or its counters cannot be read.
std::optional<PropertyTable> readDisk(const std::string& sys_root, const std::string& name);

}  // namespace volorn::linux_host
