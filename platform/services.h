#pragma once

#include "platform/battery_usage.h"
#include "platform/clock.h"
#include "platform/device_registry.h"
#include "platform/kernel.h"
#include "platform/local_calendar.h"
#include "platform/metric_store.h"
#include "platform/preferences_store.h"
#include "platform/random.h"
#include "platform/state_notifier.h"
#include "platform/system_log.h"
#include "platform/thermal.h"
#include "platform/uptime.h"
#include "platform/waketide.h"
#include "platform/work_queue.h"

namespace volorn {

// One platform: every interface through which the logic reaches its host.
struct Services {
  Clock& clock;
  Random& random;
  Kernel& kernel;
  WorkQueues& work_queues;
  Waketide& waketide;
  PreferencesStore& preferences_store;
  MetricStore& metric_store;
  DeviceRegistry& device_registry;
  StateNotifier& state_notifier;
  BatteryUsage& battery_usage;
  Thermal& thermal;
  Uptime& uptime;
  LocalCalendar& local_calendar;
  SystemLog& system_log;
};

// Installs a platform for as long as it lives. A second one beside a live one aborts. Mains and test fixtures
// alone install.
class ScopedServices {
 public:
  explicit ScopedServices(const Services& services);
  ~ScopedServices();
  ScopedServices(const ScopedServices&) = delete;
  ScopedServices& operator=(const ScopedServices&) = delete;
};

// The installed platform; aborts when there is none.
const Services& Current();

}  // namespace volorn
