#pragma once

#include <optional>
#include <string_view>

#include "platform/linux/stand_ins.h"
#include "platform/linux/state/state_file.h"
#include "platform/metric_store.h"
#include "platform/preferences_store.h"
#include "platform/waketide.h"

namespace volorn::linux_host {

class LinuxPreferencesStore : public PreferencesStore {
 public:
  explicit LinuxPreferencesStore(StateFile& state_file) : state_file_(state_file) {}

  std::optional<PreferenceValue> copyValue(std::string_view domain, std::string_view key) override;
  void setValue(std::string_view domain, std::string_view key, const PreferenceValue& value) override;
  IntegerValue getIntegerValue(std::string_view domain, std::string_view key) override;

  // Commits the whole of the run so far, metrics and job included: all live in one file.
  void synchronise(std::string_view domain) override;

 private:
  StateFile& state_file_;
  std::optional<Statement> replace_;
};

// Each transaction's metrics make one snapshot, in the order written, with whether the value stands in for a
// reading. The newest 4,000 snapshots are kept.
class LinuxMetricStore : public MetricStore {
 public:
  LinuxMetricStore(StateFile& state_file, Clock& clock, const StandIns& stand_ins)
      : state_file_(state_file), clock_(clock), stand_ins_(stand_ins) {}

  void setScalarValue(std::string_view key, std::int64_t value) override;

 private:
  void beginSnapshot(Database& database);

  StateFile& state_file_;
  Clock& clock_;
  const StandIns& stand_ins_;
  std::optional<Statement> insert_metric_;
  std::optional<Statement> insert_key_;
  std::optional<Statement> insert_stand_in_;
  int transaction_ = 0;  // that the snapshot belongs to
  std::int64_t snapshot_id_ = 0;
  std::int64_t position_ = 0;
};

// The job table, which a program of its own serves: this process is never told of an event.
class LinuxWaketide : public Waketide {
 public:
  explicit LinuxWaketide(StateFile& state_file) : state_file_(state_file) {}

  void WaketideInit(std::string_view client_name, WorkQueue& queue, EventHandler handler) override;
  void WaketideAddJob(std::string_view job_name, const JobDescription& description) override;
  std::optional<JobDescription> WaketideCopyJob(std::string_view job_name) override;

 private:
  StateFile& state_file_;
  EventHandler handler_;
};

}  // namespace volorn::linux_host
