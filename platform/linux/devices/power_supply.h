#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/device_registry.h"

namespace volorn::linux_host {

// One entry of /sys/class/power_supply as its attributes tell it; one that could not be read is none.
struct PowerSupply {
  std::optional<std::string> type = {};    // Battery, Mains, USB, USB_PD, Wireless, UPS, …
  std::optional<std::string> scope = {};   // System or Device: what it powers
  std::optional<std::string> status = {};  // Unknown, Charging, Discharging, Not charging, Full
  std::optional<std::int64_t> present = {};
  std::optional<std::int64_t> online = {};       // 0 offline, 1 online, 2 online and programmable
  std::optional<std::int64_t> energy_now = {};   // µWh
  std::optional<std::int64_t> energy_full = {};  // µWh
  std::optional<std::int64_t> charge_now = {};   // µAh
  std::optional<std::int64_t> charge_full = {};  // µAh
  std::optional<std::int64_t> capacity = {};     // percent
};

// Not the battery of a mouse, a headset or a pen.
bool isOfSystem(const PowerSupply& supply);

// What holds a charge: a battery, or the uninterruptible supply that stands in where no battery counts.
bool isStore(const PowerSupply& supply);

// The kinds that bring power in from outside.
bool isCharger(const PowerSupply& supply);

// The packs that count are the system's batteries, or its uninterruptible supplies where there is no such
// battery; less those that are absent, hold nothing when full, or tell neither a status nor a figure (a
// second entry for the same pack).

// "CurrentCapacity" and "MaxCapacity" of the packs that count as one, as doubles, in µWh or µAh, or in
// percent out of 100 where nothing else is common to them. A figure that nothing tells is left out; none
// without a pack.
std::optional<PropertyTable> powerSourceProperties(std::span<const PowerSupply> supplies);

struct SupplyState {
  bool holds = false;
  bool is_known = false;  // or else `holds` is false because nothing tells
};

// Whether power comes in from outside. Online and Discharging at once are two facts: of the packs only one
// that charges counts beside a charger that tells. Known by a charger or by a pack whose status says
// anything.
SupplyState pluggedIn(std::span<const PowerSupply> supplies);

// Whether every pack that counts is full. Known where there is one, and each is full or tells its status.
SupplyState fullyCharged(std::span<const PowerSupply> supplies);

}  // namespace volorn::linux_host
