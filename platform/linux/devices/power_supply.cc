#include "platform/linux/devices/power_supply.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace volorn::linux_host {
namespace {

// A charging that stopped this high was stopped to spare the battery.
constexpr double kHeldFullPercent = 90.0;

struct Figure {
  double now = 0.0;   // 0 to full
  double full = 0.0;  // above 0

  double percent() const { return 100.0 * now / full; }
};

using Packs = std::vector<const PowerSupply*>;
using Unit = std::optional<Figure> (*)(const PowerSupply&);
using Integer = std::optional<std::int64_t>;

std::optional<Figure> figure(const Integer& now, const Integer& full) {
  if (!now || !full || *full <= 0) return std::nullopt;
  return Figure{.now = static_cast<double>(std::clamp<std::int64_t>(*now, 0, *full)),
                .full = static_cast<double>(*full)};
}

// A whole pair, or the full figure and the share of it that a pack tells in place of what is left: chips of
// phones count that from a point of their own, and show it as something else.
std::optional<Figure> figureIn(const PowerSupply& pack, const Integer& now, const Integer& full) {
  if (const auto pair = figure(now, full)) return pair;
  const bool tells_what_is_left = pack.energy_now || pack.charge_now;
  const auto share = figure(pack.capacity, 100);
  if (tells_what_is_left || !share || !full || *full <= 0) return std::nullopt;
  const auto full_figure = static_cast<double>(*full);
  return Figure{.now = full_figure * share->now / share->full, .full = full_figure};
}

std::optional<Figure> energyOf(const PowerSupply& pack) {
  return figureIn(pack, pack.energy_now, pack.energy_full);
}

std::optional<Figure> chargeOf(const PowerSupply& pack) {
  return figureIn(pack, pack.charge_now, pack.charge_full);
}

std::optional<Figure> figureOf(const PowerSupply& pack) {
  if (const auto energy = energyOf(pack)) return energy;
  if (const auto charge = chargeOf(pack)) return charge;
  return figure(pack.capacity, 100);
}

// A worn-out or absent pack may say that it holds nothing when full.
bool holdsNothing(const PowerSupply& pack) {
  const auto& full = pack.energy_full ? pack.energy_full : pack.charge_full;
  return full && *full <= 0;
}

bool tellsAnything(const PowerSupply& pack) {
  return pack.status || pack.energy_now || pack.energy_full || pack.charge_now || pack.charge_full ||
         pack.capacity;
}

Packs countingPacks(std::span<const PowerSupply> supplies) {
  Packs packs;
  for (const std::string_view type : {"Battery", "UPS"}) {
    for (const PowerSupply& supply : supplies) {
      const bool counts = supply.type == type && isOfSystem(supply) && supply.present != 0;
      if (counts && !holdsNothing(supply) && tellsAnything(supply)) packs.push_back(&supply);
    }
    if (!packs.empty()) break;
  }
  return packs;
}

PropertyTable capacities(const Figure& figure) {
  return {{"CurrentCapacity", PropertyValue{figure.now}}, {"MaxCapacity", PropertyValue{figure.full}}};
}

// What is left of a pack that has no whole figure.
PropertyTable loneCapacity(const PowerSupply& pack) {
  const bool has_energy = pack.energy_now || pack.energy_full;
  const auto& now = has_energy ? pack.energy_now : pack.charge_now;
  const auto& full = has_energy ? pack.energy_full : pack.charge_full;
  PropertyTable table;
  if (now) table.set("CurrentCapacity", PropertyValue{std::max(static_cast<double>(*now), 0.0)});
  if (full) table.set("MaxCapacity", PropertyValue{static_cast<double>(*full)});
  return table;
}

// None unless every pack tells its figure in the unit.
std::optional<Figure> sumIn(Unit unit, const Packs& packs) {
  Figure sum;
  for (const PowerSupply* pack : packs) {
    const std::optional<Figure> figure = unit(*pack);
    if (!figure) return std::nullopt;
    sum.now += figure->now;
    sum.full += figure->full;
  }
  return sum;
}

Figure meanPercent(const Packs& packs) {
  double sum = 0.0;
  for (const PowerSupply* pack : packs) sum += figureOf(*pack)->percent();
  return {.now = sum / static_cast<double>(packs.size()), .full = 100.0};
}

bool isOnline(const PowerSupply& supply) {
  return isCharger(supply) && isOfSystem(supply) && supply.online.value_or(0) != 0;
}

// Else it is missing, "Unknown", or a word of a vendor's own.
bool tellsStatus(const PowerSupply& pack) {
  constexpr std::array<std::string_view, 4> kWords = {"Charging", "Discharging", "Not charging", "Full"};
  return std::ranges::find(kWords, pack.status.value_or("")) != kWords.end();
}

bool isFull(const PowerSupply& pack, bool charger_is_online) {
  if (pack.status == "Full") return true;
  const std::optional<Figure> figure = figureOf(pack);
  if (!figure) return false;
  if (pack.status == "Not charging") return figure->percent() >= kHeldFullPercent;
  return pack.status == "Unknown" && charger_is_online && figure->now >= figure->full;
}

}  // namespace

bool isOfSystem(const PowerSupply& supply) {
  return supply.scope != "Device";
}

bool isStore(const PowerSupply& supply) {
  return supply.type == "Battery" || supply.type == "UPS";
}

bool isCharger(const PowerSupply& supply) {
  return supply.type == "Mains" || supply.type == "Wireless" || supply.type.value_or("").starts_with("USB");
}

std::optional<PropertyTable> powerSourceProperties(std::span<const PowerSupply> supplies) {
  const Packs packs = countingPacks(supplies);
  if (packs.empty()) return std::nullopt;
  Packs told;
  std::ranges::copy_if(packs, std::back_inserter(told),
                       [](const auto* pack) { return figureOf(*pack).has_value(); });
  if (told.empty()) return packs.size() == 1 ? loneCapacity(*packs.front()) : PropertyTable{};
  if (told.size() == 1) return capacities(*figureOf(*told.front()));
  for (const Unit unit : {energyOf, chargeOf}) {
    if (const auto sum = sumIn(unit, told)) return capacities(*sum);
  }
  return capacities(meanPercent(told));
}

SupplyState pluggedIn(std::span<const PowerSupply> supplies) {
  const Packs packs = countingPacks(supplies);
  const bool charger_tells = std::ranges::any_of(supplies, [](const PowerSupply& supply) {
    return isCharger(supply) && isOfSystem(supply) && supply.online;
  });
  const bool pack_tells = std::ranges::any_of(packs, [](const auto* pack) { return tellsStatus(*pack); });
  const bool pack_is_fed = std::ranges::any_of(packs, [&](const auto* pack) {
    if (pack->status == "Charging") return true;
    return !charger_tells && (pack->status == "Full" || pack->status == "Not charging");
  });
  return {.holds = pack_is_fed || std::ranges::any_of(supplies, isOnline),
          .is_known = charger_tells || pack_tells};
}

SupplyState fullyCharged(std::span<const PowerSupply> supplies) {
  const Packs packs = countingPacks(supplies);
  if (packs.empty()) return {};
  const bool charger_is_online = std::ranges::any_of(supplies, isOnline);
  SupplyState state{.holds = true, .is_known = true};
  for (const PowerSupply* pack : packs) {
    const bool is_full = isFull(*pack, charger_is_online);
    state.holds = state.holds && is_full;
    state.is_known = state.is_known && (is_full || tellsStatus(*pack));
  }
  return state;
}

}  // namespace volorn::linux_host
