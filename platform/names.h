#pragma once

#include <string_view>

namespace volorn {

// Both the preference domain and the name that the job agent knows the daemon by.
inline constexpr std::string_view kDomain = "com.zorvik.volorn";
inline constexpr std::string_view kJobName = "com.zorvik.volorn.logcreation";

// Preferences: two dates, and an integer that counts UTC days.
inline constexpr std::string_view kNextPlannedWakeupTimeKey = "nextPlannedWakeupTime";
inline constexpr std::string_view kLastWakeupTimeKey = "lastWakeupTime";
inline constexpr std::string_view kLastLogDumpedDayKey = "lastLogDumpedDaySince1970";

}  // namespace volorn
