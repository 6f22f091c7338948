#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "waketide/schedule.h"

namespace volorn::waketide {

// What one arming tells the next, for as long as the machine is up.
struct ArmRecord {
  std::uint64_t run_started_us = 0;  // the last run whose end was seen, by its start since 1970; 0 for none
  std::optional<Schedule::Served> served;
};

// An empty record when there is none or it makes no sense: at worst the daemon is started once too often.
ArmRecord readArmRecord(const std::string& path);

// Replaces the file as a whole. Throws std::system_error.
void writeArmRecord(const std::string& path, const ArmRecord& record);

}  // namespace volorn::waketide
