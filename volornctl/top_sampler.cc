#include "volornctl/top_sampler.h"

#include <stdexcept>
#include <utility>

#include "libtop/libtop.h"
#include "platform/services.h"

namespace volorn::ctl {
namespace {

constexpr int kSamplesOfAStart = 60;

}  // namespace

TopSampler::Start::Start() {
  if (libtop_init(nullptr, nullptr) != 0) throw std::runtime_error("this machine's counters cannot be read");
}

TopSampler::Start::~Start() {
  libtop_fini();
}

KernelReturn TopSampler::StampingKernel::pid_for_task(PortName task, std::int32_t& pid) {
  const KernelReturn result = LinuxKernel::pid_for_task(task, pid);
  if (result == kKernelSuccess) uptime_seconds[pid] = Current().uptime.UptimeSeconds();
  return result;
}

TopSample TopSampler::take() {
  if (start_ && start_->samples == kSamplesOfAStart) start_.reset();
  if (!start_) start_.emplace();
  start_->kernel.uptime_seconds.clear();
  if (libtop_sample(true, false) != 0) throw std::runtime_error("this machine's counters cannot be read");
  ++start_->samples;
  TopSample sample{.at = Current().clock.now(),
                   .uptime_seconds = Current().uptime.UptimeSeconds(),
                   .system = *libtop_tsamp()};
  while (const ProcessInfo* pinfo = libtop_piterate()) {
    ProcessReading reading = readingOf(pinfo->psamp);
    reading.read_at_seconds = start_->kernel.uptime_seconds.at(reading.pid);
    sample.processes.push_back(std::move(reading));
  }
  return sample;
}

}  // namespace volorn::ctl
