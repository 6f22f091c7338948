#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "libtop/sampler.h"
#include "platform/fake/fake_host.h"
#include "platform/linux/devices/linux_device_registry.h"
#include "platform/linux/linux_kernel.h"

namespace volorn {

// A started sampler of this machine.
class RealSampler {
 public:
  explicit RealSampler(linux_host::RegionSource source = linux_host::RegionSource::best,
                       const std::string& proc_root = "/proc", bool remembers = false)
      : kernel_(proc_root, source) {
    if (remembers) kernel_.rememberProcesses();
    EXPECT_EQ(libtop_init(nullptr, nullptr), 0);
  }
  ~RealSampler() { libtop_fini(); }
  RealSampler(const RealSampler&) = delete;
  RealSampler& operator=(const RealSampler&) = delete;

  const SystemSample& sample(bool walk_regions, bool shlib_totals = false) {
    EXPECT_EQ(libtop_sample(walk_regions, shlib_totals), 0);
    return *libtop_tsamp();
  }

  // The update that a sample would make of this process.
  int update(std::int32_t pid) {
    PortName task = 0;
    if (kernel_.task_for_pid(kernel_.mach_task_self(), pid, task) != kKernelSuccess) return kProcessSkipped;
    const int result = libtop_process_update(task, true);
    kernel_.mach_port_deallocate(kernel_.mach_task_self(), task);
    return result;
  }

  // Null when the sampler has no record of it.
  static const ProcessSample* process(std::int32_t pid) {
    const ProcessInfo* pinfo = sampler.processes.find(pid);
    return pinfo ? &pinfo->psamp : nullptr;
  }

 private:
  fake::FakeHost host_;
  linux_host::LinuxKernel kernel_;
  linux_host::SupplyReadings supplies_{"/sys"};
  linux_host::LinuxDeviceRegistry devices_{"/sys", supplies_};
  Services services_ = host_.servicesWith(kernel_, devices_);
  ScopedServices installed_{services_};
};

}  // namespace volorn
