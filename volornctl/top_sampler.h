#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "platform/linux/linux_kernel.h"
#include "platform/linux/read_only_host.h"
#include "volornctl/top_figures.h"

namespace volorn::ctl {

// Samples this machine over time. What the sampler keeps of memory that processes share only grows, here as
// in the bindings below it, so both are made anew now and then; no counter begins again with them.
class TopSampler {
 public:
  // Throws std::runtime_error when the machine's counters cannot be read.
  TopSample take();

 private:
  // Notes when each process was read: naming its task is the first thing that the sampler asks of it, and the
  // counters come at once, before its memory is walked.
  class StampingKernel : public linux_host::LinuxKernel {
   public:
    StampingKernel() : LinuxKernel("/proc") {}
    KernelReturn pid_for_task(PortName task, std::int32_t& pid) override;

    std::map<std::int32_t, double> uptime_seconds;  // by pid
  };

  struct Start {
    Start();
    ~Start();
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    StampingKernel kernel;
    linux_host::ReadOnlyHost host{&kernel};
    int samples = 0;
  };

  std::optional<Start> start_;
};

}  // namespace volorn::ctl
