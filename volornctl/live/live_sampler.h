#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/linux/linux_kernel.h"
#include "platform/linux/read_only_host.h"
#include "volornctl/live/readings.h"

namespace volorn::ctl {

// Takes one sample after another.
class Sampler {
 public:
  virtual ~Sampler() = default;

  // Throws std::runtime_error when the machine's counters cannot be read.
  virtual Sample take() = 0;
};

// Samples this machine over time; what did not change from one sample to the next costs little. What the
// sampler keeps of memory that processes share only grows, so it is started anew now and then, and the
// binding below it forgets what nobody holds any more; no counter begins again with that.
class LiveSampler : public Sampler {
 public:
  Sample take() override;

 private:
  // Notes when each process was read: naming its task is the first thing that the sampler asks of it, and the
  // counters come at once, before its memory is walked.
  class NotingKernel : public linux_host::LinuxKernel {
   public:
    NotingKernel();
    KernelReturn pid_for_task(PortName task, std::int32_t& pid) override;

    KernelNotes notes;
  };

  struct Start {
    Start();
    ~Start();
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    int samples = 0;
  };

  MachineReading read();

  NotingKernel kernel_;
  linux_host::ReadOnlyHost host_{&kernel_};
  std::optional<Start> start_;
  std::optional<MachineReading> before_;
};

}  // namespace volorn::ctl
