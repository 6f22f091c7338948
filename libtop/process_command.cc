#include <new>

#include "libtop/assertion.h"
#include "libtop/sampler.h"

namespace volorn {
namespace {

// The last part of the path behind the first string of a process's arguments. Empty where that path has no
// '/'. Arguments that end before it does give the launcher's own name.
std::string_view programOf(std::string_view arguments) {
  constexpr auto npos = std::string_view::npos;
  const std::size_t executable_end = arguments.find('\0');
  const std::size_t begin = arguments.find_first_not_of('\0', executable_end);
  const std::size_t end = begin == npos ? npos : arguments.find('\0', begin);
  if (executable_end == npos || end == npos) return kLegacyLauncherNameInParentheses;
  const std::string_view path = arguments.substr(begin, end - begin);
  const std::size_t slash = path.rfind('/');
  return slash == npos ? std::string_view() : path.substr(slash + 1);
}

}  // namespace

int kinfo_for_pid(KinfoProc& record, std::int32_t pid) {
  const std::array<std::int32_t, 4> name = {1, 14, 1, pid};
  const int result = theKernel().sysctl(name, record);
  if (result != 0) tellSysctlFailure("kinfo_for_pid");
  return result;
}

ProcessUpdate libtop_p_proc_command(ProcessInfo& pinfo, const KinfoProc& kinfo) try {
  std::string& command = pinfo.psamp.command;
  command.clear();
  const std::string_view name = kinfo.command.data();
  // Any beginning of the launcher's name is taken for it, the empty one too.
  if (!kLegacyLauncherName.starts_with(name)) {
    command = name;
    return kProcessUpdated;
  }
  const auto pid = pidOf(pinfo.psamp);
  if (pid == 0) assertionFailed("libtop_p_proc_command", 2091, "pinfo->psamp.pid != 0");
  const std::array<std::int32_t, 3> arguments_name = {1, 49, pid};
  std::byte* buffer = sampler.argument_buffer.get();
  std::size_t length_bytes = sampler.argument_limit_bytes;
  if (theKernel().sysctl(arguments_name, buffer, length_bytes) != 0) {
    tellSysctlFailure("libtop_p_proc_command");
    return kProcessSkipped;
  }
  const void* bytes = buffer;
  command = programOf({static_cast<const char*>(bytes), length_bytes});
  return kProcessUpdated;
} catch (const std::bad_alloc&) {
  return kProcessOutOfMemory;
}

}  // namespace volorn
