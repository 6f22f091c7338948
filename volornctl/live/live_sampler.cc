#include "volornctl/live/live_sampler.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include "libtop/libtop.h"
#include "platform/linux/kernel/file_buffer.h"
#include "platform/linux/parse_meminfo.h"
#include "platform/services.h"

namespace volorn::ctl {
namespace {

constexpr int kSamplesOfAStart = 60;

std::optional<std::uint64_t> readAvailableBytes() {
  linux_host::FileBuffer buffer;
  if (buffer.read(AT_FDCWD, "/proc/meminfo") != 0) return std::nullopt;
  const std::optional<std::uint64_t> kib = linux_host::parseMemoryInfo(buffer.text()).available_kib;
  return kib ? std::optional(*kib * 1024) : std::nullopt;
}

// Half of the descriptors may be held open for what tells whether a process has run, and many a session is
// given fewer than there are processes.
void raiseDescriptorLimit() {
  constexpr rlim_t kEnough = 8192;
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kEnough));
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

LiveSampler::NotingKernel::NotingKernel() : LinuxKernel("/proc") {
  raiseDescriptorLimit();
  rememberProcesses();
}

LiveSampler::Start::Start() {
  if (libtop_init(nullptr, nullptr) != 0) throw std::runtime_error("this machine's counters cannot be read");
}

LiveSampler::Start::~Start() {
  libtop_fini();
}

KernelReturn LiveSampler::NotingKernel::pid_for_task(PortName task, std::int32_t& pid) {
  const KernelReturn result = LinuxKernel::pid_for_task(task, pid);
  if (result != kKernelSuccess) return result;
  try {
    notes.read_at_seconds[pid] = Current().uptime.UptimeSeconds();
  } catch (const std::bad_alloc&) {
    return kKernelFailure;
  }
  return result;
}

MachineReading LiveSampler::read() {
  if (start_ && start_->samples == kSamplesOfAStart) {
    start_.reset();
    kernel_.forgetObjects();
  }
  if (!start_) start_.emplace();
  MachineReading reading = takeReading(kernel_.notes);
  reading.available_bytes = readAvailableBytes();
  ++start_->samples;
  for (ProcessReading& process : reading.processes) {
    ProcessFigures& figures = process.figures;
    const auto notes = kernel_.notesOn(figures.pid);
    if (!notes) continue;
    // The time of start moves with the wall clock.
    figures.start = static_cast<std::int64_t>(notes->start_ticks);
    if (!notes->regions_are_known) figures.private_bytes.reset();
    if (!notes->descriptors_are_known) figures.descriptors.reset();
  }
  return reading;
}

Sample LiveSampler::take() {
  MachineReading reading = read();
  Sample sample = sampleOf(reading, before_ ? &*before_ : nullptr);
  before_ = std::move(reading);
  return sample;
}

}  // namespace volorn::ctl
