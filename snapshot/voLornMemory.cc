#include "snapshot/voLornMemory.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/services.h"

namespace volorn {
namespace {

constexpr std::string_view kListSizeFailure = "getMemoryData: proc_listpids returns error";
constexpr std::string_view kListFailure = "getMemoryData: proc_listpids returns error second time around";

struct StepFailure {
  std::string_view text;
  bool log_first;  // else the sink hears of it first
};

// By MemoryStep.
constexpr std::array kStepFailures = {
    StepFailure{"getMemoryData: proc_name returned error", false},
    StepFailure{"getMemoryData: proc_pidinfo returned error", false},
    StepFailure{"getMemoryData: task_for_pid returned error", false},
    StepFailure{"getMemoryData: task_info basic info failed", true},
    StepFailure{"getMemoryData: task_info extmod info failed", true},
};
static_assert(kStepFailures.size() == static_cast<std::size_t>(MemoryStep::task_info_extmod) + 1);

// The report's own terms: pages of 4096 bytes whatever the kernel's, of a size cut to 32 bits with a sign.
std::int32_t residentPages(std::uint64_t resident_bytes) {
  constexpr std::int32_t kPageBytes = 4096;
  const auto size_bytes = static_cast<std::int32_t>(resident_bytes);
  return size_bytes / kPageBytes + (size_bytes % kPageBytes != 0 ? 1 : 0);
}

class Walk {
 public:
  explicit Walk(ProcessMemorySink& sink) : sink_(sink) {}

  void run() {
    const int size = kernel_.proc_listpids(kProcAllPids, 0, nullptr, 0);
    if (size <= 0) return failList(kListSizeFailure);
    // The size is bytes and is taken for a count, here and in the walk: the buffer is four times what is
    // needed, and what the kernel does not fill stays 0.
    std::vector<std::int32_t> pids(static_cast<std::size_t>(size));
    const int filled = kernel_.proc_listpids(kProcAllPids, 0, pids.data(), size);
    if (filled < 1) return failList(kListFailure);
    pids.resize(std::min(pids.size(), static_cast<std::size_t>(filled)));
    for (const std::int32_t pid : pids) {
      if (pid != 0) readProcess(pid);
    }
  }

 private:
  void readProcess(std::int32_t pid) {
    std::array<char, 64> name = {};
    if (kernel_.proc_name(pid, name.data(), name.size()) <= 0) return fail(pid, "", MemoryStep::proc_name);

    ProcTaskAllInfo probe = {};
    if (kernel_.proc_pidinfo(pid, probe) <= 0) return fail(pid, name.data(), MemoryStep::proc_pidinfo);

    PortName task = 0;
    if (kernel_.task_for_pid(kernel_.mach_task_self(), pid, task) != kKernelSuccess) {
      return fail(pid, name.data(), MemoryStep::task_for_pid);
    }
    TaskResidentSize basic = {};
    if (kernel_.task_info(task, basic) != kKernelSuccess) {
      return fail(pid, name.data(), MemoryStep::task_info_basic);
    }
    TaskExtmodInfo extmod = {};
    if (kernel_.task_info(task, extmod) != kKernelSuccess) {
      return fail(pid, name.data(), MemoryStep::task_info_extmod);
    }
    sink_.addProcess({.pid = pid,
                      .name = name.data(),
                      .uuid = extmod.task_uuid,
                      .rpages = residentPages(basic.resident_size),
                      .resident_bytes = basic.resident_size});
  }

  void fail(std::int32_t pid, std::string_view name, MemoryStep step) {
    const auto& [text, log_first] = kStepFailures[static_cast<std::size_t>(step)];
    if (log_first) log_.write(text);
    sink_.addFailure({.pid = pid, .name = name, .step = step, .text = text});
    if (!log_first) log_.write(text);
  }

  void failList(std::string_view text) {
    sink_.addListFailure(text);
    log_.write(text);
  }

  ProcessMemorySink& sink_;
  Kernel& kernel_ = Current().kernel;
  SystemLog& log_ = Current().system_log;
};

constexpr std::size_t kReportCapacityHint = 10'000;

constexpr std::size_t kNameColumns = 16;
constexpr std::size_t kPagesColumns = 20;

// Columns are bytes. A longer text is not cut.
std::string rightAligned(std::string_view text, std::size_t columns) {
  return std::string(columns - std::min(columns, text.size()), ' ').append(text);
}

}  // namespace

void walkProcessMemory(ProcessMemorySink& sink) {
  Walk(sink).run();
}

std::string uuidText(const std::array<std::uint8_t, 16>& uuid) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * uuid.size());
  for (const std::uint8_t byte : uuid) {
    text += kDigits[byte / 16];
    text += kDigits[byte % 16];
  }
  return text;
}

// The header ends four columns further right than the rows.
ProcessMemoryText::ProcessMemoryText() {
  text_.reserve(kReportCapacityHint);
  text_.append("\n").append(rightAligned("Name", kNameColumns));
  text_.append("                <UUID>                    ").append(rightAligned("rpages", kPagesColumns));
  text_ += '\n';
}

void ProcessMemoryText::addProcess(const ProcessMemory& process) {
  text_ += rightAligned(process.name, kNameColumns) + "  <" + uuidText(process.uuid) + ">  " +
           rightAligned(std::to_string(process.rpages), kPagesColumns) + "\n";
}

// A process without a name has a line to itself; the others leave theirs open.
void ProcessMemoryText::addFailure(const ProcessMemoryFailure& failure) {
  text_ += failure.text;
  if (failure.step == MemoryStep::proc_name) {
    text_ += " for pid " + std::to_string(failure.pid) + "\n";
  } else {
    text_.append(" for pid: ").append(std::to_string(failure.pid)).append(", name : ").append(failure.name);
  }
}

void ProcessMemoryText::addListFailure(std::string_view text) {
  text_ += text;
}

std::string voLornMemory::getMemoryData() {
  ProcessMemoryText report;
  walkProcessMemory(report);
  return report.text();
}

}  // namespace volorn
