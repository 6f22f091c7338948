#include "platform/linux/state/state_services.h"

#include <utility>

#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_queries.h"

namespace volorn::linux_host {
std::optional<PreferenceValue> LinuxPreferencesStore::copyValue(std::string_view domain,
                                                                std::string_view key) {
  std::optional<PreferenceValue> value;
  state_file_.read([&](Database& database) { value = selectPreference(database, domain, key); });
  return value;
}

void LinuxPreferencesStore::setValue(std::string_view domain, std::string_view key,
                                     const PreferenceValue& value) {
  state_file_.write([&](Database& database) {
    if (!replace_) replace_ = database.prepare("REPLACE INTO preference VALUES (?, ?, ?, ?)");
    replace_->bind(1, domain).bind(2, key);
    if (const auto* date = std::get_if<Date>(&value)) {
      replace_->bind(3, "date").bind(4, date->secondsSinceReferenceDate());
    } else {
      replace_->bind(3, "integer").bind(4, std::get<std::int64_t>(value));
    }
    replace_->run();
  });
}

PreferencesStore::IntegerValue LinuxPreferencesStore::getIntegerValue(std::string_view domain,
                                                                      std::string_view key) {
  const std::optional<PreferenceValue> value = copyValue(domain, key);
  const auto* integer = value ? std::get_if<std::int64_t>(&*value) : nullptr;
  return integer ? IntegerValue{*integer, true} : IntegerValue{};
}

void LinuxPreferencesStore::synchronise(std::string_view /*domain*/) {
  state_file_.commit();
}

void LinuxMetricStore::setScalarValue(std::string_view key, std::int64_t value) {
  state_file_.write([&](Database& database) {
    if (transaction_ != state_file_.transaction()) beginSnapshot(database);
    insert_metric_->bind(1, snapshot_id_).bind(2, ++position_).bind(3, value).bind(4, key);
    insert_metric_->run();
    if (database.changes() == 0) {
      insert_key_->bind(1, key).run();
      insert_metric_->run();
    }
    if (!stand_ins_.contains(key)) return;
    if (!insert_stand_in_) insert_stand_in_ = database.prepare("INSERT INTO stand_in VALUES (?, ?)");
    insert_stand_in_->bind(1, snapshot_id_).bind(2, position_).run();
  });
}

void LinuxMetricStore::beginSnapshot(Database& database) {
  if (!insert_metric_) {
    insert_metric_ =
        database.prepare("INSERT INTO metric SELECT ?1, ?2, id, ?3 FROM metric_key WHERE name = ?4");
    insert_key_ = database.prepare("INSERT INTO metric_key (name) VALUES (?)");
  }
  database.prepare("INSERT INTO snapshot (taken_at) VALUES (?)")
      .bind(1, clock_.now().secondsSinceReferenceDate())
      .run();
  snapshot_id_ = database.lastInsertRowid();
  position_ = 0;
  transaction_ = state_file_.transaction();
  if (snapshot_id_ <= kSnapshotsKept) return;
  const std::int64_t newest_dropped = snapshot_id_ - kSnapshotsKept;
  for (const char* statement :
       {"DELETE FROM stand_in WHERE snapshot_id <= ?", "DELETE FROM metric WHERE snapshot_id <= ?",
        "DELETE FROM snapshot WHERE id <= ?"}) {
    database.prepare(statement).bind(1, newest_dropped).run();
  }
}

void LinuxWaketide::WaketideInit(std::string_view /*client_name*/, WorkQueue& /*queue*/,
                                 EventHandler handler) {
  handler_ = std::move(handler);
}

void LinuxWaketide::WaketideAddJob(std::string_view job_name, const JobDescription& description) {
  state_file_.write([&](Database& database) {
    database.prepare("REPLACE INTO job VALUES (?, ?, ?)")
        .bind(1, job_name)
        .bind(2, description.window_start_time)
        .bind(3, description.window_end_time)
        .run();
  });
}

std::optional<JobDescription> LinuxWaketide::WaketideCopyJob(std::string_view job_name) {
  std::optional<JobDescription> job;
  state_file_.read([&](Database& database) { job = selectJob(database, job_name); });
  return job;
}

}  // namespace volorn::linux_host
