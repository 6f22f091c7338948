#include "platform/linux/kernel/executable.h"

#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "platform/linux/file_descriptor.h"
#include "tests/fuzz/fuzz.h"

// A file of any bytes behind the first six, which would be found too seldom.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  using namespace volorn::linux_host;
  if (size < EI_NIDENT) return 0;
  std::string bytes(textOf(data, size));
  bytes.replace(0, SELFMAG, ELFMAG);
  bytes[EI_CLASS] = data[EI_CLASS] % 2 == 0 ? ELFCLASS64 : ELFCLASS32;
  bytes[EI_DATA] = data[EI_DATA] % 2 == 0 ? ELFDATA2LSB : ELFDATA2MSB;
  const FileDescriptor file(memfd_create("executable", MFD_CLOEXEC));
  require(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  const auto id = readBuildId(file.get());
  require(!id || bytes.find("GNU") != bytes.npos);
  return 0;
}
