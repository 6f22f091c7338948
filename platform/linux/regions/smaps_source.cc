#include "platform/linux/regions/smaps_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/regions/parse_smaps.h"

namespace volorn::linux_host {
namespace {

// Many times the longest line, which is that of a mapping with the longest path.
constexpr std::size_t kTextBytes = 65536;

// The [vsyscall] page lies in the kernel's half of the addresses: every process has it, none owns it.
bool isOfKernel(const Mapping& mapping) {
  return mapping.start >> 63 != 0;
}

}  // namespace

SmapsSource::SmapsSource(std::uint64_t page_size_bytes)
    : page_size_bytes_(page_size_bytes), text_(kTextBytes) {}

bool SmapsSource::read(int process_folder, std::vector<Mapping>& mappings) {
  const FileDescriptor file(openat(process_folder, "smaps", O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  std::size_t held = 0;
  for (;;) {
    const ssize_t count = ::read(file.get(), text_.data() + held, text_.size() - held);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    held += static_cast<std::size_t>(count);
    const std::optional<std::size_t> taken = parseSmaps({text_.data(), held}, page_size_bytes_, mappings);
    if (!taken) return false;
    std::copy(text_.data() + *taken, text_.data() + held, text_.data());
    held -= *taken;
  }
  std::erase_if(mappings, isOfKernel);
  return held == 0;
}

}  // namespace volorn::linux_host
