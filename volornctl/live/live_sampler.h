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

// Samples this machine over time. What the sampler keeps of memory that processes share only grows, here as
// in the bindings below it, so both are made anew now and then; no counter begins again with them.
class LiveSampler : public Sampler {
 public:
  Sample take() override;

 private:
  // Notes when each process was read: naming its task is the first thing that the sampler asks of it, and the
  // counters come at once, before its memory is walked.
  class NotingKernel : public linux_host::LinuxKernel {
   public:
    NotingKernel() : LinuxKernel("/proc") {}
    KernelReturn pid_for_task(PortName task, std::int32_t& pid) override;

    KernelNotes notes;
  };

  struct Start {
    Start();
    ~Start();
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    NotingKernel kernel;
    linux_host::ReadOnlyHost host{&kernel};
    int samples = 0;
  };

  MachineReading read();

  std::optional<Start> start_;
  std::optional<MachineReading> before_;
};

}  // namespace volorn::ctl
