#include "platform/fake/fake_host.h"

#include <cmath>

namespace volorn::fake {
namespace {

std::string joined(std::string_view first, std::string_view second) {
  return std::string(first) + " " + std::string(second);
}

}  // namespace

double FakeClock::read(const char* call) {
  calls_.emplace_back(call);
  return std::exchange(seconds_since_1970, seconds_since_1970 + seconds_per_reading);
}

std::int64_t FakeClock::time() {
  const double seconds = std::floor(read("time"));
  return fails ? -1 : static_cast<std::int64_t>(seconds);
}

Date FakeClock::now() {
  return Date::fromSecondsSince1970(read("now"));
}

std::uint32_t FakeRandom::arc4random() {
  calls_.emplace_back("arc4random");
  return next;
}

std::shared_ptr<WorkQueue> FakeWorkQueues::createSerialQueue(std::string_view label) {
  calls_.push_back(joined("createSerialQueue", label));
  return std::make_shared<WorkQueue>();
}

void FakeWaketide::WaketideInit(std::string_view client_name, WorkQueue& delivery_queue,
                                EventHandler event_handler) {
  calls_.push_back(joined("WaketideInit", client_name));
  queue = &delivery_queue;
  handler = std::move(event_handler);
}

void FakeWaketide::WaketideAddJob(std::string_view job_name, const JobDescription& description) {
  calls_.push_back(joined("WaketideAddJob", job_name));
  jobs.insert_or_assign(std::string(job_name), description);
}

std::optional<JobDescription> FakeWaketide::WaketideCopyJob(std::string_view job_name) {
  calls_.push_back(joined("WaketideCopyJob", job_name));
  const auto found = jobs.find(job_name);
  return found == jobs.end() ? std::nullopt : std::optional(found->second);
}

std::optional<PreferenceValue> FakePreferencesStore::copyValue(std::string_view domain,
                                                               std::string_view key) {
  calls_.push_back(joined("copyValue", key));
  const auto found = values.find(joined(domain, key));
  return found == values.end() ? std::nullopt : std::optional(found->second);
}

void FakePreferencesStore::setValue(std::string_view domain, std::string_view key,
                                    const PreferenceValue& value) {
  calls_.push_back(joined("setValue", key));
  values.insert_or_assign(joined(domain, key), value);
}

PreferencesStore::IntegerValue FakePreferencesStore::getIntegerValue(std::string_view domain,
                                                                     std::string_view key) {
  calls_.push_back(joined("getIntegerValue", key));
  const auto found = values.find(joined(domain, key));
  if (found == values.end()) return {};
  const auto* integer = std::get_if<std::int64_t>(&found->second);
  return integer ? IntegerValue{*integer, true} : IntegerValue{};
}

void FakePreferencesStore::synchronise(std::string_view domain) {
  calls_.push_back(joined("synchronise", domain));
}

void FakeMetricStore::setScalarValue(std::string_view key, std::int64_t value) {
  calls_.push_back(joined("setScalarValue", key));
  written.emplace_back(key, value);
}

std::uint32_t FakeStateNotifier::registerCheck(std::string_view name, std::uint32_t& token) {
  calls_.push_back(joined("registerCheck", name));
  if (!states.contains(name)) return 1;
  registered_.emplace_back(name);
  token = static_cast<std::uint32_t>(registered_.size());
  return 0;
}

std::uint32_t FakeStateNotifier::getState(std::uint32_t token, std::uint64_t& state) {
  calls_.emplace_back("getState");
  if (token == 0 || token > registered_.size()) return 1;
  state = states.find(registered_[token - 1])->second;
  return 0;
}

std::uint32_t FakeBatteryUsage::ShellServerPort() {
  calls_.emplace_back("ShellServerPort");
  return 0x707;
}

void FakeBatteryUsage::BatteryUsageTimes(std::uint32_t port, float& usage_seconds, float& standby_seconds,
                                         std::uint8_t& fully_charged_once, std::uint8_t& flag_b) {
  calls_.push_back(joined("BatteryUsageTimes", port == 0x707 ? "shell port" : "another port"));
  if (!times) return;
  usage_seconds = times->usage_seconds;
  standby_seconds = times->standby_seconds;
  fully_charged_once = times->fully_charged_once;
  flag_b = times->flag_b;
}

std::int32_t FakeThermal::CurrentThermalLevel() {
  calls_.emplace_back("CurrentThermalLevel");
  return level;
}

double FakeUptime::UptimeSeconds() {
  calls_.emplace_back("UptimeSeconds");
  return seconds;
}

LocalCalendar::TimeOfDay FakeLocalCalendar::timeOfDay(const DateRef& date) {
  if (!date || !std::isfinite(date->secondsSince1970())) return {};
  const auto seconds = static_cast<std::int64_t>(std::floor(date->secondsSince1970())) + seconds_east_of_utc;
  const auto of_day = static_cast<std::int32_t>(((seconds % 86400) + 86400) % 86400);
  return {.hour = of_day / 3600, .minute = of_day / 60 % 60, .second = of_day % 60};
}

}  // namespace volorn::fake
