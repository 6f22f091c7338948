#pragma once

#include <optional>
#include <string_view>

#include "platform/linux/state/database.h"
#include "platform/linux/usage_books.h"
#include "platform/preferences_store.h"
#include "platform/waketide.h"

namespace volorn::linux_host {

// What is read both by the daemon and by those who look at its state. Everything throws SqliteError.

std::optional<PreferenceValue> selectPreference(Database& database, std::string_view domain,
                                                std::string_view key);

std::optional<JobDescription> selectJob(Database& database, std::string_view name);

// None before the first mark, and for a text that makes no sense. A file of an earlier version has no such
// table.
std::optional<UsageBooks> selectUsageBooks(Database& database);

}  // namespace volorn::linux_host
