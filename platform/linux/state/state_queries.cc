#include "platform/linux/state/state_queries.h"

namespace volorn::linux_host {

std::optional<PreferenceValue> selectPreference(Database& database, std::string_view domain,
                                                std::string_view key) {
  Statement select = database.prepare("SELECT value FROM preference WHERE domain = ? AND key = ?");
  if (!select.bind(1, domain).bind(2, key).step()) return std::nullopt;
  // The schema holds kind and storage class together.
  if (select.columnType(0) == SQLITE_FLOAT) return Date::fromSecondsSinceReferenceDate(select.real(0));
  return select.integer(0);
}

std::optional<JobDescription> selectJob(Database& database, std::string_view name) {
  Statement select = database.prepare("SELECT window_start, window_end FROM job WHERE name = ?");
  if (!select.bind(1, name).step()) return std::nullopt;
  return JobDescription{.window_start_time = select.real(0), .window_end_time = select.real(1)};
}

std::optional<UsageBooks> selectUsageBooks(Database& database) {
  Statement select = database.prepare("SELECT books FROM usage_books");
  return select.step() ? parseUsageBooks(select.text(0)) : std::nullopt;
}

}  // namespace volorn::linux_host
