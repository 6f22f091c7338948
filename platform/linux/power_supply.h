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

bool isBattery(const PowerSupply& supply);

// The kinds that bring power in from outside.
bool isCharger(const PowerSupply& supply);

// "CurrentCapacity" and "MaxCapacity" of the system's batteries as one, in µWh or µAh, or in percent out of
// 100 where nothing else is common to them. A figure that nothing tells is left out; none without a battery.
std::optional<PropertyTable> powerSourceProperties(std::span<const PowerSupply> supplies);

// Online and Discharging at once are two facts: what the batteries say counts only where there is no charger.
bool isPluggedIn(std::span<const PowerSupply> supplies);

bool isFullyCharged(std::span<const PowerSupply> supplies);

}  // namespace volorn::linux_host
