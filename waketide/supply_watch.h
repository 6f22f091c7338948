#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "waketide/note.h"
#include "waketide/uevents.h"

namespace volorn::waketide {

// Notices what a mark in the books of usage is due for: plug or full charge differ from what was seen last,
// or the machine has slept.
class SupplyWatch {
 public:
  // Readable when there may be something; negative where the kernel refuses its events.
  int fd() const { return events_.fd(); }

  // Takes what happened since; the mark that is due for it, if any. Never waits. There is none on a machine
  // that has had no battery.
  std::optional<Note> take();

  bool hasBattery() const { return has_battery_; }

 private:
  Uevents events_;
  bool has_battery_ = false;  // has had one
  std::optional<bool> plugged_in_;
  bool is_full_ = false;
  std::int64_t asleep_ns_ = -1;  // of this boot; negative before the first look
  // Until then what a mark has read may be older or newer than what was seen here.
  std::chrono::steady_clock::time_point unsure_until_;
};

// Takes a mark, and one for each change until ten seconds have passed since the last one, or a minute in all:
// a plug that flaps need not start a process each time. What could not be kept is told on standard error.
void settle(const std::string& state_directory);

}  // namespace volorn::waketide
