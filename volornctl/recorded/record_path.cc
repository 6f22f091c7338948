#include "volornctl/recorded/record_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/state/state_directory.h"

namespace volorn::ctl {
namespace {

// Empty for root and for whoever has no home.
std::string ownFolder() {
  const std::string folder = linux_host::stateDirectoryOf(geteuid());
  return folder == linux_host::kSystemStateDirectory ? "" : folder;
}

}  // namespace

std::string recordToWrite() {
  const std::string folder = ownFolder();
  if (folder.empty()) {
    const std::string system = kSystemRecord;
    mkdir(system.substr(0, system.rfind('/')).c_str(), 0750);
    return system;
  }
  linux_host::StateDirectory(folder).open();
  return folder + "/record.db";
}

std::string recordToRead() {
  const std::string own = ownFolder() + "/record.db";
  struct stat status = {};
  return own.front() == '/' && own.size() > 10 && lstat(own.c_str(), &status) == 0 ? own : kSystemRecord;
}

}  // namespace volorn::ctl
