#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/state/state_reader.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {

// What one step of a stored number is.
enum class Unit {
  kTimeOfDay,    // seconds since local midnight
  kLevel,        // 0 to 4
  kSeconds100x,  // hundredths of a second
  kYesNo,
  kPercent100x,  // hundredths of a percent
  kCapacity,     // uWh, uAh or percent, as the battery has it
  kHundredths,
  kPercent,
};

// What a key of the snapshots means to people. Every text about one is made from this.
struct KeyMeaning {
  std::string_view key;
  const char* label;       // "Charge"
  std::string_view group;  // of keys that are asked for together: "battery"
  Unit unit;
  const char* gauge;  // its name in the exposition format
  const char* help;  // of the gauge; without quotes and backslashes, which the two formats escape differently
};

// In the order in which a snapshot writes them.
std::span<const KeyMeaning> keyMeanings();

// Null for a key that this program does not know.
const KeyMeaning* meaningOf(std::string_view key);

// Whether people mean this key by that name: itself, with its prefix or without, or its group.
bool isNamed(std::string_view key, std::string_view name);

// What keys may be asked for by: each without its prefix, then the groups.
std::vector<std::string> keyNames();

// Throws the error of a wrong command line unless some key that this program knows is named so.
void refuseUnknownName(std::string_view name);

// A key as people are shown it.
std::string withoutPrefix(std::string_view key);

// The latest reading under the key, should a snapshot hold it twice; none for one that was not had.
std::optional<std::int64_t> knownValue(const linux_host::StoredSnapshot& snapshot, std::string_view key);

// What a snapshot's value tells people, with its unit: "93.75 %", "3 h 25 min". Empty where nothing can be
// added to the number, as for a key that this program does not know.
std::string reading(std::string_view key, std::int64_t value);

inline constexpr const char* kNotKnown = "not known";

// Two cells of a table more: a number of the snapshot as it is stored, and its reading. "not known" takes the
// place of both where the number stands in for a reading.
void addValue(Row& row, const linux_host::StoredSnapshot& snapshot, std::string_view key, std::int64_t value);

// How many digits of the stored number stand behind the point once it is in the gauge's base unit.
std::size_t gaugeDigits(Unit unit);

}  // namespace volorn::ctl
