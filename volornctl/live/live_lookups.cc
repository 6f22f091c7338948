#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/kernel/numbered_entries.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/kernel/ticks.h"
#include "platform/linux/page_size.h"
#include "platform/linux/regions/smaps_source.h"
#include "volornctl/live/lookups.h"
#include "volornctl/live/users.h"

namespace volorn::ctl {
namespace {

using linux_host::FileBuffer;
using linux_host::FileDescriptor;
using linux_host::Mapping;

constexpr std::size_t kMostArgumentBytes = 4096;
constexpr std::size_t kMostThreads = 1000;

enum Kind { kCode, kFilePrivate, kFileShared, kAnonymous, kAnonymousShared, kHuge };
constexpr std::array kKindNames = {"code",      "files, private",    "files, shared",
                                   "anonymous", "anonymous, shared", "huge pages"};

Kind kindOf(const Mapping& mapping) {
  if (mapping.has_huge_pages) return kHuge;
  if (mapping.isAnonymous()) return mapping.is_shared ? kAnonymousShared : kAnonymous;
  if (mapping.protection & kProtectionExecute) return kCode;
  return mapping.is_shared ? kFileShared : kFilePrivate;
}

std::vector<RegionKind> countKinds(const std::vector<Mapping>& mappings, std::uint64_t page_size_bytes) {
  std::array<RegionKind, kKindNames.size()> kinds;
  for (const Mapping& mapping : mappings) {
    RegionKind& kind = kinds.at(kindOf(mapping));
    ++kind.regions;
    kind.virtual_bytes += mapping.end - mapping.start;
    kind.private_bytes += mapping.private_pages * page_size_bytes;
    kind.resident_bytes += (mapping.private_pages + mapping.shared_pages) * page_size_bytes;
  }
  std::vector<RegionKind> found;
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    kinds[i].kind = kKindNames[i];
    if (kinds[i].regions > 0) found.push_back(kinds[i]);
  }
  return found;
}

class UserLookups : public Lookups {
 public:
  Found lookUp(const Wanted& wanted) override {
    Found found;
    for (const std::uint32_t uid : wanted.users) {
      found.users[uid] = userNameOf(uid).value_or(std::to_string(uid));
    }
    return found;
  }
};

class LiveLookups : public UserLookups {
 public:
  Found lookUp(const Wanted& wanted) override {
    Found found = UserLookups::lookUp(wanted);
    for (const ProcessId& id : wanted.command_lines) found.command_lines[id] = readCommandLine(id);
    if (wanted.opened) found.opened = readProcess(*wanted.opened);
    return found;
  }

 private:
  // None where it has ended, though another may have its pid.
  FileDescriptor folderOf(const ProcessId& id) {
    FileDescriptor folder(
        open(("/proc/" + std::to_string(id.pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || buffer_.readRecord(folder.get(), "stat") != 0) return FileDescriptor();
    const auto stat = linux_host::parseProcessStat(buffer_.text());
    const bool is_same = stat && static_cast<std::int64_t>(stat->start_ticks) == id.start;
    return is_same ? std::move(folder) : FileDescriptor();
  }

  std::string readCommandLine(const ProcessId& id) {
    const FileDescriptor folder = folderOf(id);
    if (!folder || buffer_.read(folder.get(), "cmdline", kMostArgumentBytes) != 0) return "";
    std::string text(buffer_.text());
    while (!text.empty() && text.back() == '\0') text.pop_back();
    std::ranges::replace(text, '\0', ' ');
    return text;
  }

  OpenedProcess readProcess(const ProcessId& id) {
    OpenedProcess process{.id = id};
    const FileDescriptor folder = folderOf(id);
    if (!folder) return process;
    const FileDescriptor tasks(openat(folder.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<std::int32_t> ids;
    if (tasks) linux_host::listNumberedEntries(tasks.get(), ids);
    for (const std::int32_t thread : ids) {
      if (process.threads.size() == kMostThreads) break;
      if (buffer_.readRecord(tasks.get(), (std::to_string(thread) + "/stat").c_str()) != 0) continue;
      const auto stat = linux_host::parseProcessStat(buffer_.text());
      if (!stat) continue;
      const TimeStamp used = linux_host::timeOfTicks(stat->user_ticks + stat->system_ticks);
      process.threads.push_back(
          {.id = thread,
           .state = stat->state,
           .cpu_seconds = static_cast<double>(used.seconds) + static_cast<double>(used.microseconds) * 1e-6,
           .name = std::string(stat->name())});
    }
    std::vector<Mapping> mappings;
    if (smaps_.read(folder.get(), mappings)) process.regions = countKinds(mappings, page_size_bytes_);
    return process;
  }

  std::uint64_t page_size_bytes_ = linux_host::pageSizeBytes();
  FileBuffer buffer_;
  linux_host::SmapsSource smaps_{page_size_bytes_};
};

}  // namespace

std::unique_ptr<Lookups> makeLiveLookups() {
  return std::make_unique<LiveLookups>();
}

std::unique_ptr<Lookups> makeUserLookups() {
  return std::make_unique<UserLookups>();
}

}  // namespace volorn::ctl
