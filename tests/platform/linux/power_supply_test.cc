#include "platform/linux/power_supply.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "platform/linux/read_power_supply.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

using Supplies = std::vector<PowerSupply>;

using Integer = std::optional<std::int64_t>;

constexpr std::nullopt_t kNone = std::nullopt;
constexpr std::int64_t kHuge = std::numeric_limits<std::int64_t>::max();

PowerSupply battery(PowerSupply supply) {
  supply.type = "Battery";
  return supply;
}

PowerSupply energy(Integer now, Integer full) {
  return battery({.energy_now = now, .energy_full = full});
}

PowerSupply charge(Integer now, Integer full) {
  return battery({.charge_now = now, .charge_full = full});
}

PowerSupply capacity(std::int64_t percent) {
  return battery({.capacity = percent});
}

PowerSupply both(const PowerSupply& energy, const PowerSupply& charge, Integer capacity = kNone) {
  PowerSupply pack = energy;
  pack.charge_now = charge.charge_now;
  pack.charge_full = charge.charge_full;
  pack.capacity = capacity;
  return pack;
}

using Capacities = std::pair<std::optional<double>, std::optional<double>>;

const struct {
  const char* what;
  Capacities expected;
  Supplies supplies;
} kCapacityRows[] = {
    {"energy before charge and capacity", {5, 10}, {both(energy(5, 10), charge(1, 2), 7)}},
    {"pairs are never mixed", {1, 2}, {both(energy(5, kNone), charge(1, 2))}},
    {"capacity where no pair is whole", {7, 100}, {both(energy(5, kNone), charge(kNone, 2), 7)}},
    {"capacity above 100", {100, 100}, {capacity(117)}},
    {"capacity below 0", {0, 100}, {capacity(-1)}},
    {"now above full", {10, 10}, {energy(11, 10)}},
    {"now below 0", {0, 10}, {energy(-11, 10)}},
    {"lone energy", {5, kNone}, {both(energy(5, kNone), charge(kNone, 2))}},
    {"lone full energy", {kNone, 5}, {both(energy(kNone, 5), charge(2, kNone))}},
    {"lone charge", {2, kNone}, {charge(2, kNone)}},
    {"lone negative", {0, kNone}, {charge(-2, kNone)}},
    {"sums of energy", {25, 30}, {energy(5, 10), both(energy(30, 20), charge(1, 2)), battery({})}},
    {"sums of the unit in common", {4, 6}, {both(energy(5, 10), charge(1, 2)), charge(3, 4)}},
    {"mixed units: mean of the percents", {37.5, 100}, {energy(5, 10), charge(1, 4)}},
    {"a charge pair of nothing is none", {37.5, 100}, {both(energy(5, 10), charge(1, 0)), charge(1, 4)}},
    {"several with only capacity", {62.5, 100}, {capacity(50), capacity(75)}},
    {"one figure among several packs", {50, 100}, {capacity(50), energy(5, kNone)}},
    {"lone values of several packs", {kNone, kNone}, {energy(5, kNone), energy(kNone, 5)}},
    {"empty packs", {1, 2}, {energy(5, 0), charge(5, -9), energy(kNone, 0), charge(1, 2)}},
    {"an empty pack's capacity",
     {50, 100},
     {capacity(50), {.type = "Battery", .energy_full = 0, .capacity = 90}}},
    {"beyond 64 bits", {0x1p63, 0x1p63}, {energy(kHuge, kHuge), energy(kHuge, kHuge)}},
    {"mouse", {5, 100}, {battery({.scope = "Device", .present = 1, .capacity = 1}), capacity(5)}},
    {"absent", {5, 100}, {battery({.present = 0, .capacity = 1}), capacity(5)}},
    {"no battery", {5, 100}, {{.type = "UPS", .capacity = 1}, {.capacity = 1}, capacity(5)}},
    {"present", {5, 100}, {battery({.scope = "System", .present = 1, .capacity = 5})}},
};

TEST(PowerSupplyTest, Capacities) {
  for (const auto& [what, expected, supplies] : kCapacityRows) {
    const std::optional<PropertyTable> properties = powerSourceProperties(supplies);
    ASSERT_TRUE(properties) << what;
    const auto number = [&](const char* name) {
      const PropertyValue* value = properties->find(name);
      return value ? value->asDouble() : std::nullopt;
    };
    EXPECT_EQ(Capacities(number("CurrentCapacity"), number("MaxCapacity")), expected) << what;
  }
  EXPECT_FALSE(powerSourceProperties(Supplies{{.type = "Mains"}, energy(5, 0), energy(kNone, 0)}));
  EXPECT_EQ(powerSourceProperties(Supplies{capacity(7)})->integer("CurrentCapacity"), 7);
}

PowerSupply charger(const char* type, Integer online, const char* scope = "System") {
  return {.type = type, .scope = scope, .online = online};
}

PowerSupply saying(const char* status, PowerSupply pack = battery({})) {
  pack.status = status;
  return pack;
}

const struct {
  const char* what;
  bool plugged_in, fully_charged;
  Supplies supplies;
} kStateRows[] = {
    {"nothing", false, false, {}},
    {"online and discharging", true, false, {charger("Mains", 1), saying("Discharging")}},
    {"offline, whatever the battery says", false, true, {charger("Mains", 0), saying("Full")}},
    {"charger that does not tell", false, true, {charger("Wireless", kNone), saying("Full")}},
    {"any charger", true, false, {charger("Mains", 0), charger("USB_PD", 2)}},
    {"charger of a mouse", false, false, {charger("USB", 1, "Device")}},
    {"charger of a mouse is none", true, true, {charger("USB", 0, "Device"), saying("Full")}},
    {"charging", true, false, {saying("Charging")}},
    {"held, nobody knows at what", true, false, {saying("Not charging")}},
    {"unknown", false, false, {saying("Unknown", capacity(100))}},
    {"status unreadable", false, false, {capacity(100)}},
    {"held at 90 percent", true, true, {saying("Not charging", energy(27, 30))}},
    {"held below", true, false, {saying("Not charging", both(energy(26, 30), charge(2, 2), 100))}},
    {"held at a capacity", true, true, {saying("Not charging", capacity(90))}},
    {"one not full", true, false, {saying("Full"), saying("Charging")}},
    {"one that tells no figure counts", true, false, {saying("Full"), battery({})}},
    {"empty packs", true, true, {saying("Full"), saying("Charging", energy(0, 0))}},
    {"only an empty pack", false, false, {saying("Full", energy(0, 0))}},
    {"a full mouse", false, false, {saying("Full", battery({.scope = "Device"}))}},
    {"a full pack that is absent", false, false, {saying("Full", battery({.present = 0}))}},
};

TEST(PowerSupplyTest, States) {
  for (const auto& [what, plugged_in, fully_charged, supplies] : kStateRows) {
    EXPECT_EQ(isPluggedIn(supplies), plugged_in) << what;
    EXPECT_EQ(isFullyCharged(supplies), fully_charged) << what;
  }
}

TEST(ReadPowerSupplyTest, EachAttributeLandsInItsField) {
  const FixtureTree tree(R"(class/power_supply/AC/type Mains
class/power_supply/AC/online 1
class/power_supply/hidpp_battery_0/type Battery
class/power_supply/hidpp_battery_0/scope Device
class/power_supply/ups/type UPS
devices/BAT0/type Battery
devices/BAT0/scope System
devices/BAT0/status Not charging
devices/BAT0/present 1
devices/BAT0/energy_now 2
devices/BAT0/energy_full 3
devices/BAT0/charge_now 4
devices/BAT0/charge_full 5
devices/BAT0/capacity 6
)");
  std::filesystem::create_directory_symlink("../../devices/BAT0", tree.at("class/power_supply/BAT0"));
  const Supplies supplies = readPowerSupplies(tree.root());
  ASSERT_EQ(supplies.size(), 2U);
  EXPECT_EQ(supplies[0].online, 1);
  const PowerSupply& pack = supplies[1];
  EXPECT_EQ(pack.scope, "System");
  EXPECT_EQ(pack.status, "Not charging");
  EXPECT_EQ((std::vector{pack.present, pack.energy_now, pack.energy_full, pack.charge_now, pack.charge_full,
                         pack.capacity}),
            (std::vector<Integer>{1, 2, 3, 4, 5, 6}));
}

}  // namespace
}  // namespace volorn::linux_host
