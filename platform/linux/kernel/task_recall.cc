// What is served of a process that has not run, and when that is taken up.
#include <algorithm>
#include <array>
#include <charconv>
#include <new>
#include <span>

#include "platform/linux/kernel/parse_process_statm.h"
#include "platform/linux/kernel/task.h"
#include "platform/linux/page_size.h"
#include "platform/linux/regions/region_groups.h"

namespace volorn::linux_host {
namespace {

using Facts = RememberedProcesses::Facts;

bool agree(const ProcessPages& pages, const ProcessStatus& status) {
  const std::uint64_t page_size_bytes = pageSizeBytes();
  return pages.mapped * page_size_bytes == status.virtual_bytes &&
         pages.resident * page_size_bytes == status.resident_bytes &&
         (pages.resident - pages.shared) * page_size_bytes == status.anonymous_bytes;
}

}  // namespace

// False when the process has to be read. Its marks have been then.
bool Task::recall() {
  if (marks_are_read_ || !reader_.remembered.isOn()) return false;
  marks_are_read_ = true;
  RememberedProcesses::Process* const known = reader_.remembered.find(pid_);
  marks_.assign(1, {.thread = pid_});
  if (known && !known->marks.empty()) marks_ = known->marks;
  if (known) known->mark_files.resize(known->marks.size());
  const bool has_run = !reader_.files.updateMarks(
      pid_, marks_, known ? std::span(known->mark_files) : std::span<FileDescriptor>());
  if (has_run || !known || !known->facts || othersHaveChanged(*known)) return false;
  Facts& facts = *known->facts;
  // Regions that could not be read may be read by now.
  const bool is_to_walk = reader_.remembered.isTurnOf(
      *known, known->regions_are_known ? RememberedProcesses::kSamplesToPages
                                       : RememberedProcesses::kSamplesToOthersWork);
  if (is_to_walk) facts.groups.reset();
  stat_ = facts.stat;
  status_ = facts.status;
  threads_ = facts.threads;
  threads_are_read_ = true;
  context_switches_ = facts.context_switches;
  descriptors_ = facts.descriptors;
  is_recalled_ = true;
  return true;
}

// Looks when it is the process's turn, and when it may have got another parent.
bool Task::othersHaveChanged(RememberedProcesses::Process& process) {
  Facts& facts = *process.facts;
  const bool parent_is_there = reader_.remembered.find(facts.stat.parent);
  const bool has_lost_parent = facts.parent_was_there && !parent_is_there;
  facts.parent_was_there = parent_is_there;
  if (has_lost_parent) RememberedProcesses::walkAgain(&process);
  const bool is_turn = reader_.remembered.isTurnOf(process, RememberedProcesses::kSamplesToOthersWork);
  if (!is_turn && !has_lost_parent) return false;
  const auto pages = parseProcessPages(reader_.files.read(pid_, "statm"));
  if (!pages || !agree(*pages, facts.status)) return true;
  if (parseProcessStat(reader_.files.read(pid_, "stat")) != facts.stat) return true;
  if (!facts.descriptors) return false;
  constexpr std::string_view kFile = "/fd";
  std::array<char, 24> name = {};
  kFile.copy(std::to_chars(name.begin(), name.end(), pid_).ptr, kFile.size());
  return countDescriptors(reader_.files.folder(), name.data()) != *facts.descriptors;
}

// Whether the marks are of all its threads, and all that was read is younger than they are. A thread that
// neither they nor the list of threads has was in the count, or a thread that they have has made it since.
// One that is about to run needs no time to do so.
bool Task::hasRested() const {
  if (!status_ || !threads_are_read_ || first_thread_has_ended_) return false;
  if (marks_.size() != threads_.size() || stat_->threads != threads_.size()) return false;
  for (std::size_t i = 0; i < marks_.size(); ++i) {
    const TaskThread& thread = threads_[i];
    if (marks_[i].thread != thread.id || !marks_[i].isKnown() || thread.state == 'R') return false;
  }
  return true;
}

// Memory that runs out loses what is remembered of the process.
void Task::remember() try {
  if (!marks_are_read_ || !stat_) return;
  RememberedProcesses::Process& known = reader_.remembered.of(pid_, stat_->start_ticks);
  const bool has_executed = known.facts && known.facts->stat.start_code != stat_->start_code;
  if (has_executed) RememberedProcesses::walkAgain(reader_.remembered.find(stat_->parent));
  if (!is_recalled_ || error_) known.facts.reset();
  if (error_) return;
  if (is_recalled_) {
    if (!known.facts) return;
  } else if (hasRested()) {
    known.marks = marks_;
    known.facts = {.stat = *stat_,
                   .status = *status_,
                   .threads = threads_,
                   .parent_was_there = reader_.remembered.find(stat_->parent) != nullptr};
  } else if (threads_are_read_) {
    const auto id_of = [](const auto& thread) { return thread.id; };
    if (!std::ranges::equal(known.marks, threads_, {}, &RunMark::thread, id_of)) {
      known.marks.clear();
      known.mark_files.clear();
    }
    known.marks.resize(threads_.size());
    for (std::size_t i = 0; i < threads_.size(); ++i) known.marks[i] = {.thread = threads_[i].id};
  }
  if (known.facts) {
    known.facts->context_switches = context_switches_;
    known.facts->descriptors = descriptors_;
    if (groups_) known.facts->groups = *groups_;
  }
  reader_.remembered.charge(known);
} catch (const std::bad_alloc&) {
  if (RememberedProcesses::Process* known = reader_.remembered.find(pid_)) known->facts.reset();
}

const std::vector<RegionGroup>* Task::regionGroups() {
  if (!reader_.remembered.isOn() || !stat()) return nullptr;
  if (is_recalled_) {
    const auto& facts = reader_.remembered.of(pid_, stat_->start_ticks).facts;
    if (facts && facts->groups) return &*facts->groups;
  }
  if (!groups_) {
    if (regions_walk_ != RegionWalk::of_task && !readRegions(RegionWalk::of_task)) return nullptr;
    groupRegions(regions_, *cpu_type_, groups_.emplace());
  }
  return &*groups_;
}

}  // namespace volorn::linux_host
