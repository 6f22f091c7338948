#include "platform/linux/kernel/remembered_processes.h"

#include <algorithm>

namespace volorn::linux_host {
namespace {

// The kernel keeps a page of text for each file that has been read.
constexpr std::size_t kBytesOfAFile = 4608;

std::size_t bytesOf(const RememberedProcesses::Process& process) {
  std::size_t bytes = sizeof process + process.marks.capacity() * sizeof process.marks[0];
  if (!process.facts) return bytes;
  const RememberedProcesses::Facts& facts = *process.facts;
  bytes += facts.threads.capacity() * sizeof facts.threads[0];
  return facts.groups ? bytes + facts.groups->capacity() * sizeof(RegionGroup) : bytes;
}

}  // namespace

void RememberedProcesses::remember(std::size_t most_bytes, std::size_t most_files) {
  const std::size_t bytes_of_files = most_bytes / 4;
  most_files_ = std::min(most_files, bytes_of_files / kBytesOfAFile);
  most_bytes_ = most_bytes - bytes_of_files;
}

RememberedProcesses::Process& RememberedProcesses::of(std::int32_t pid, std::uint64_t start_ticks) {
  Process& process = known_[pid];
  if (process.start_ticks != start_ticks) {
    charged_bytes_ -= process.charged_bytes;
    process = {.start_ticks = start_ticks, .turn = turns_++};
  }
  process.sample = sample_;
  return process;
}

RememberedProcesses::Process* RememberedProcesses::find(std::int32_t pid) {
  const auto found = known_.find(pid);
  return found == known_.end() ? nullptr : &found->second;
}

void RememberedProcesses::charge(Process& process) {
  const std::size_t of_others = charged_bytes_ - process.charged_bytes;
  process.charged_bytes = bytesOf(process);
  if (of_others + process.charged_bytes > most_bytes_) {
    process.marks = {};
    process.mark_files.clear();
    process.facts.reset();
    process.charged_bytes = 0;
  }
  charged_bytes_ = of_others + process.charged_bytes;
}

void RememberedProcesses::walkAgain(Process* process) {
  if (process && process->facts) process->facts->groups.reset();
}

std::vector<std::uint32_t> RememberedProcesses::objectIds() const {
  std::vector<std::uint32_t> ids;
  for (const auto& [pid, process] : known_) {
    if (!process.facts || !process.facts->groups) continue;
    for (const RegionGroup& group : *process.facts->groups) ids.push_back(group.info.object_id);
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

void RememberedProcesses::beginSample(std::span<const std::int32_t> pids) {
  ++sample_;
  for (const std::int32_t pid : pids) {
    if (Process* process = find(pid)) process->sample = sample_;
  }
  held_files_ = 0;
  std::erase_if(known_, [&](const auto& entry) {
    const Process& process = entry.second;
    if (process.sample == sample_) {
      held_files_ += process.mark_files.size();
      return false;
    }
    charged_bytes_ -= process.charged_bytes;
    walkAgain(process.facts ? find(process.facts->stat.parent) : nullptr);
    return true;
  });
}

}  // namespace volorn::linux_host
