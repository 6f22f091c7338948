#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/date.h"
#include "platform/device_registry.h"
#include "platform/wakeup_status.h"

namespace volorn {

// The display's "brightness" table: integers "value" (the present setting), "min" and "max".
using BrightnessEntry = PropertyTable;

// Takes one snapshot of the device and writes it, reading by reading, to the metric store.
class voLornLog {
 public:
  // Null when there is no memory for it.
  static std::unique_ptr<voLornLog> init();

  // None where no backlight service tells it.
  std::optional<BrightnessEntry> brightnessParameters();

  // Writes the snapshot keys in their fixed order. A reading that fails gives its key a fixed value or leaves
  // the key out; nothing is reported. `status` is accepted and has no effect. `planned` is the time that this
  // wake-up was planned for, null leaves its key out; `next_planned` is the time just chosen, and its key is
  // written even for null.
  void writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(WakeupStatus status,
                                                                       const DateRef& planned,
                                                                       const DateRef& next_planned);

  // The local clock's time of day in seconds, 0 to 86399; 0 for no date.
  static std::int32_t _secsSinceMidnight(const DateRef& date);

 private:
  voLornLog() = default;
};

}  // namespace volorn
