#pragma once

#include <string>

namespace volorn::ctl {

// Where volorn-record.service keeps its record.
inline constexpr const char* kSystemRecord = "/var/lib/volorn-record/record.db";

// Of a recorder that this user starts: the system's for root, else one in the folder of this user's state,
// which is made. Throws std::runtime_error.
std::string recordToWrite();

// The same, if there is one, else the system's.
std::string recordToRead();

}  // namespace volorn::ctl
