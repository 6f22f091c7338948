#include "volornctl/kept/state_choice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_directory.h"

namespace volorn::ctl {

std::string stateDirectoryInUse(const std::string& own, const std::string& system) {
  if (own.empty()) return system;
  struct stat status = {};
  const std::string path = own + "/" + linux_host::kStateFileName;
  const bool missing = lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
  return missing ? system : own;
}

std::string stateDirectory(const Surroundings& surroundings) {
  if (!surroundings.state_directory.empty()) return surroundings.state_directory;
  return stateDirectoryInUse(linux_host::stateDirectoryOf(geteuid()), linux_host::kSystemStateDirectory);
}

}  // namespace volorn::ctl
