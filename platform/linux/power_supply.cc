#include "platform/linux/power_supply.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace volorn::linux_host {
namespace {

// A charging that stopped this high was stopped to spare the battery.
constexpr double kHeldFullPercent = 90.0;

struct Figure {
  std::int64_t now = 0;   // 0 to full
  std::int64_t full = 0;  // above 0

  double percent() const { return 100.0 * static_cast<double>(now) / static_cast<double>(full); }
};

using Packs = std::vector<const PowerSupply*>;
using Unit = std::optional<Figure> (*)(const PowerSupply&);

std::optional<Figure> pair(std::optional<std::int64_t> now, std::optional<std::int64_t> full) {
  if (!now || !full || *full <= 0) return std::nullopt;
  return Figure{.now = std::clamp<std::int64_t>(*now, 0, *full), .full = *full};
}

std::optional<Figure> energyOf(const PowerSupply& pack) {
  return pair(pack.energy_now, pack.energy_full);
}

std::optional<Figure> chargeOf(const PowerSupply& pack) {
  return pair(pack.charge_now, pack.charge_full);
}

std::optional<Figure> figureOf(const PowerSupply& pack) {
  if (const auto energy = energyOf(pack)) return energy;
  if (const auto charge = chargeOf(pack)) return charge;
  return pair(pack.capacity, 100);
}

// A worn-out or absent pack may say that it holds nothing when full.
bool holdsNothing(const PowerSupply& pack) {
  const auto& full = pack.energy_full ? pack.energy_full : pack.charge_full;
  return full && *full <= 0;
}

Packs systemPacks(std::span<const PowerSupply> supplies) {
  Packs packs;
  for (const PowerSupply& supply : supplies) {
    const bool counts = isBattery(supply) && isOfSystem(supply) && supply.present != 0;
    if (counts && !holdsNothing(supply)) packs.push_back(&supply);
  }
  return packs;
}

PropertyTable capacities(const Figure& figure) {
  return {{"CurrentCapacity", PropertyValue{figure.now}}, {"MaxCapacity", PropertyValue{figure.full}}};
}

// What is left of a pack none of whose pairs is whole.
PropertyTable loneCapacity(const PowerSupply& pack) {
  const bool has_energy = pack.energy_now || pack.energy_full;
  const auto& now = has_energy ? pack.energy_now : pack.charge_now;
  const auto& full = has_energy ? pack.energy_full : pack.charge_full;
  PropertyTable table;
  if (now) table.set("CurrentCapacity", PropertyValue{std::max<std::int64_t>(*now, 0)});
  if (full) table.set("MaxCapacity", PropertyValue{*full});
  return table;
}

// A device that lies must not overflow the sum of the others.
std::int64_t saturatingSum(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  return a > kMax - b ? kMax : a + b;
}

// None unless every pack tells its figure in the unit.
std::optional<Figure> sumIn(Unit unit, const Packs& packs) {
  Figure sum;
  for (const PowerSupply* pack : packs) {
    const std::optional<Figure> figure = unit(*pack);
    if (!figure) return std::nullopt;
    sum.now = saturatingSum(sum.now, figure->now);
    sum.full = saturatingSum(sum.full, figure->full);
  }
  return sum;
}

PropertyTable meanPercent(const Packs& packs) {
  double sum = 0.0;
  for (const PowerSupply* pack : packs) sum += figureOf(*pack)->percent();
  return {{"CurrentCapacity", PropertyValue{sum / static_cast<double>(packs.size())}},
          {"MaxCapacity", PropertyValue{std::int64_t{100}}}};
}

bool isFull(const PowerSupply& pack) {
  if (pack.status == "Full") return true;
  const std::optional<Figure> figure = figureOf(pack);
  return pack.status == "Not charging" && figure && figure->percent() >= kHeldFullPercent;
}

}  // namespace

bool isOfSystem(const PowerSupply& supply) {
  return supply.scope != "Device";
}

bool isBattery(const PowerSupply& supply) {
  return supply.type == "Battery";
}

bool isCharger(const PowerSupply& supply) {
  return supply.type == "Mains" || supply.type == "Wireless" || supply.type.value_or("").starts_with("USB");
}

std::optional<PropertyTable> powerSourceProperties(std::span<const PowerSupply> supplies) {
  const Packs packs = systemPacks(supplies);
  if (packs.empty()) return std::nullopt;
  Packs told;
  std::ranges::copy_if(packs, std::back_inserter(told),
                       [](const auto* pack) { return figureOf(*pack).has_value(); });
  if (told.empty()) return packs.size() == 1 ? loneCapacity(*packs.front()) : PropertyTable{};
  if (told.size() == 1) return capacities(*figureOf(*told.front()));
  for (const Unit unit : {energyOf, chargeOf}) {
    if (const auto sum = sumIn(unit, told)) return capacities(*sum);
  }
  return meanPercent(told);
}

bool isPluggedIn(std::span<const PowerSupply> supplies) {
  bool has_charger = false;
  for (const PowerSupply& supply : supplies) {
    if (!isCharger(supply) || !isOfSystem(supply)) continue;
    if (supply.online.value_or(0) != 0) return true;
    has_charger = true;  // one that does not tell leaves the state a failed reading: 0
  }
  if (has_charger) return false;
  return std::ranges::any_of(systemPacks(supplies), [](const auto* pack) {
    return pack->status == "Charging" || pack->status == "Full" || pack->status == "Not charging";
  });
}

bool isFullyCharged(std::span<const PowerSupply> supplies) {
  const Packs packs = systemPacks(supplies);
  return !packs.empty() && std::ranges::all_of(packs, [](const auto* pack) { return isFull(*pack); });
}

}  // namespace volorn::linux_host
