#pragma once

#include "platform/linux/linux_battery_usage.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_device_registry.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/linux_local_calendar.h"
#include "platform/linux/linux_random.h"
#include "platform/linux/linux_state_notifier.h"
#include "platform/linux/linux_thermal.h"
#include "platform/linux/linux_work_queues.h"
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
  };

  // A whole platform. It refers to these bindings and to what is given, `kernel` in place of the one here.
  Services servicesWith(const Own& own, Kernel* kernel = nullptr) {
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

 private:
  LinuxClock clock_;
  LinuxRandom random_;
  LinuxWorkQueues work_queues_;
  LinuxBatteryUsage battery_usage_;
  LinuxUptime uptime_;
  LinuxLocalCalendar local_calendar_;
  LinuxKernel kernel_{"/proc"};
  LinuxDeviceRegistry device_registry_{"/sys"};
  LinuxStateNotifier state_notifier_{"/sys"};
  LinuxThermal thermal_{"/sys"};
};

}  // namespace volorn::linux_host
