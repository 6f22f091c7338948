#pragma once

#include <string>

#include "platform/linux/devices/linux_device_registry.h"
#include "platform/linux/devices/linux_state_notifier.h"
#include "platform/linux/devices/linux_thermal.h"
#include "platform/linux/linux_battery_usage.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/linux_local_calendar.h"
#include "platform/linux/linux_random.h"
#include "platform/linux/linux_work_queues.h"
#include "platform/linux/stand_ins.h"
#include "platform/services.h"

namespace volorn::linux_host {

// The bindings that every program on this machine has alike. What a program keeps between its runs, and whom
// it tells, is its own.
class HostBindings {
 public:
  struct Own {
    Waketide& waketide;
    PreferencesStore& preferences_store;
    MetricStore& metric_store;
    SystemLog& system_log;
    StateFile* usage_books = nullptr;  // where they are kept, if anywhere
  };

  // The roots are for tests, and so is the call, which has no root.
  explicit HostBindings(const std::string& proc_root = "/proc", const std::string& sys_root = "/sys",
                        LinuxKernel::SystemInfoCall system_info = ::sysinfo)
      : kernel_(proc_root, RegionSource::best, system_info, &stand_ins_),
        supplies_(sys_root),
        battery_usage_(proc_root, supplies_, stand_ins_),
        device_registry_(sys_root, supplies_, &stand_ins_),
        state_notifier_(supplies_, stand_ins_),
        thermal_(sys_root, stand_ins_) {}

  // A whole platform. It refers to these bindings and to what is given, `kernel` in place of the one here.
  Services servicesWith(const Own& own, Kernel* kernel = nullptr) {
    battery_usage_.setBooks(own.usage_books);
    return {.clock = clock_,
            .random = random_,
            .kernel = kernel ? *kernel : kernel_,
            .work_queues = work_queues_,
            .waketide = own.waketide,
            .preferences_store = own.preferences_store,
            .metric_store = own.metric_store,
            .device_registry = device_registry_,
            .state_notifier = state_notifier_,
            .battery_usage = battery_usage_,
            .thermal = thermal_,
            .uptime = uptime_,
            .local_calendar = local_calendar_,
            .system_log = own.system_log};
  }

  // What these bindings have told of their readings.
  const StandIns& standIns() const { return stand_ins_; }

 private:
  StandIns stand_ins_;
  LinuxClock clock_;
  LinuxRandom random_;
  LinuxWorkQueues work_queues_;
  LinuxUptime uptime_;
  LinuxLocalCalendar local_calendar_;
  LinuxKernel kernel_;
  SupplyReadings supplies_;
  LinuxBatteryUsage battery_usage_;
  LinuxDeviceRegistry device_registry_;
  LinuxStateNotifier state_notifier_;
  LinuxThermal thermal_;
};

}  // namespace volorn::linux_host
