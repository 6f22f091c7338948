#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/fake/call_journal.h"
#include "platform/fake/fake_device_registry.h"
#include "platform/fake/fake_kernel.h"
#include "platform/services.h"

namespace volorn::fake {

class FakeClock : public Clock {
 public:
  explicit FakeClock(CallJournal& calls) : calls_(calls) {}
  std::int64_t time() override;
  Date now() override;

  double seconds_since_1970 = 0.0;
  double seconds_per_reading = 0.0;  // how far the clock moves after each reading
  bool fails = false;                // time() alone can fail

 private:
  double read(const char* call);
  CallJournal& calls_;
};

class FakeRandom : public Random {
 public:
  explicit FakeRandom(CallJournal& calls) : calls_(calls) {}
  std::uint32_t arc4random() override;

  std::uint32_t next = 0;

 private:
  CallJournal& calls_;
};

class FakeWorkQueues : public WorkQueues {
 public:
  explicit FakeWorkQueues(CallJournal& calls) : calls_(calls) {}
  std::shared_ptr<WorkQueue> createSerialQueue(std::string_view label) override;
  WorkQueue& mainQueue() override { return main_queue_; }

 private:
  CallJournal& calls_;
  WorkQueue main_queue_;
};

class FakeWaketide : public Waketide {
 public:
  explicit FakeWaketide(CallJournal& calls) : calls_(calls) {}
  void WaketideInit(std::string_view client_name, WorkQueue& queue, EventHandler handler) override;
  void WaketideAddJob(std::string_view job_name, const JobDescription& description) override;
  std::optional<JobDescription> WaketideCopyJob(std::string_view job_name) override;

  std::map<std::string, JobDescription, std::less<>> jobs;
  EventHandler handler;
  const WorkQueue* queue = nullptr;

 private:
  CallJournal& calls_;
};

class FakePreferencesStore : public PreferencesStore {
 public:
  explicit FakePreferencesStore(CallJournal& calls) : calls_(calls) {}
  std::optional<PreferenceValue> copyValue(std::string_view domain, std::string_view key) override;
  void setValue(std::string_view domain, std::string_view key, const PreferenceValue& value) override;
  IntegerValue getIntegerValue(std::string_view domain, std::string_view key) override;
  void synchronise(std::string_view domain) override;

  // Keyed by "DOMAIN KEY".
  std::map<std::string, PreferenceValue, std::less<>> values;

 private:
  CallJournal& calls_;
};

class FakeMetricStore : public MetricStore {
 public:
  explicit FakeMetricStore(CallJournal& calls) : calls_(calls) {}
  void setScalarValue(std::string_view key, std::int64_t value) override;

  std::vector<std::pair<std::string, std::int64_t>> written;

 private:
  CallJournal& calls_;
};

class FakeStateNotifier : public StateNotifier {
 public:
  explicit FakeStateNotifier(CallJournal& calls) : calls_(calls) {}
  std::uint32_t registerCheck(std::string_view name, std::uint32_t& token) override;
  std::uint32_t getState(std::uint32_t token, std::uint64_t& state) override;

  std::map<std::string, std::uint64_t, std::less<>> states;  // a name that is not here cannot be registered

 private:
  CallJournal& calls_;
  std::vector<std::string> registered_;  // token n is entry n - 1
};

class FakeBatteryUsage : public BatteryUsage {
 public:
  struct Times {
    float usage_seconds;
    float standby_seconds;
    std::uint8_t fully_charged_once;
    std::uint8_t flag_b;
  };

  explicit FakeBatteryUsage(CallJournal& calls) : calls_(calls) {}
  std::uint32_t ShellServerPort() override;
  void BatteryUsageTimes(std::uint32_t port, float& usage_seconds, float& standby_seconds,
                         std::uint8_t& fully_charged_once, std::uint8_t& flag_b) override;

  std::optional<Times> times;  // none: the query writes nothing

 private:
  CallJournal& calls_;
};

class FakeThermal : public Thermal {
 public:
  explicit FakeThermal(CallJournal& calls) : calls_(calls) {}
  std::int32_t CurrentThermalLevel() override;

  std::int32_t level = 0;

 private:
  CallJournal& calls_;
};

class FakeUptime : public Uptime {
 public:
  explicit FakeUptime(CallJournal& calls) : calls_(calls) {}
  double UptimeSeconds() override;

  double seconds = 0.0;

 private:
  CallJournal& calls_;
};

class FakeLocalCalendar : public LocalCalendar {
 public:
  TimeOfDay timeOfDay(const DateRef& date) override;

  std::int64_t seconds_east_of_utc = 0;
};

class FakeSystemLog : public SystemLog {
 public:
  void write(std::string_view line) override { lines.emplace_back(line); }

  std::vector<std::string> lines;
};

// A whole host whose readings are data. Times of day and log lines stand in no journal: they change nothing.
struct FakeHost {
  CallJournal calls;
  FakeClock clock{calls};
  FakeRandom random{calls};
  FakeKernel kernel{calls};
  FakeWorkQueues work_queues{calls};
  FakeWaketide waketide{calls};
  FakePreferencesStore preferences_store{calls};
  FakeMetricStore metric_store{calls};
  FakeDeviceRegistry device_registry{calls};
  FakeStateNotifier state_notifier{calls};
  FakeBatteryUsage battery_usage{calls};
  FakeThermal thermal{calls};
  FakeUptime uptime{calls};
  FakeLocalCalendar local_calendar;
  FakeSystemLog system_log;

  Services services() { return servicesWith(kernel, device_registry); }

  // Another kernel, with other devices, in place of the fakes.
  Services servicesWith(Kernel& other_kernel, DeviceRegistry& other_devices) {
    return {.clock = clock,
            .random = random,
            .kernel = other_kernel,
            .work_queues = work_queues,
            .waketide = waketide,
            .preferences_store = preferences_store,
            .metric_store = metric_store,
            .device_registry = other_devices,
            .state_notifier = state_notifier,
            .battery_usage = battery_usage,
            .thermal = thermal,
            .uptime = uptime,
            .local_calendar = local_calendar,
            .system_log = system_log};
  }
};

}  // namespace volorn::fake
