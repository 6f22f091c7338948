#pragma once

#include "platform/local_calendar.h"

namespace volorn::linux_host {

class LinuxLocalCalendar : public LocalCalendar {
 public:
  // All zero, too, for a date that is no number or in a year that the C library cannot count.
  TimeOfDay timeOfDay(const DateRef& date) override;
};

}  // namespace volorn::linux_host
