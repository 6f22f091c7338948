#pragma once

#include <cstdint>

#include "platform/date.h"

namespace volorn {

// The user's calendar in the time zone that holds at the moment of the call.
class LocalCalendar {
 public:
  // What a wall clock shows.
  struct TimeOfDay {
    std::int32_t hour = 0;
    std::int32_t minute = 0;
    std::int32_t second = 0;
  };

  virtual ~LocalCalendar() = default;

  // All zero for no date.
  virtual TimeOfDay timeOfDay(const DateRef& date) = 0;
};

}  // namespace volorn
