#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "platform/fake/fake_host.h"
#include "platform/linux/host_bindings.h"
#include "platform/snapshot_keys.h"
#include "snapshot/voLornLog.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

using namespace snapshot_key;

// The fixed point of 594/2048, 2.5 and 0.
int loadOfThree(struct sysinfo* info) {
  info->loads[0] = 594 << 5;
  info->loads[1] = 5 << 15;
  return 0;
}

int noLoad(struct sysinfo* /*info*/) {
  return -1;
}

// The figures of a snapshot taken of a fixture tree.
class Snapshot : public MetricStore {
 public:
  explicit Snapshot(const FixtureTree& tree, LinuxKernel::SystemInfoCall system_info = loadOfThree)
      : bindings_(tree.root(), tree.root(), system_info) {
    fake::FakeHost host;
    const Services services =
        bindings_.servicesWith({host.waketide, host.preferences_store, *this, host.system_log});
    const ScopedServices installed(services);
    voLornLog::init()->writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(WakeupStatusOnTime,
                                                                                       nullptr, nullptr);
  }

  void setScalarValue(std::string_view key, std::int64_t value) override {
    figures_[key] = std::to_string(value) + (bindings_.standIns().contains(key) ? "?" : "");
    if (bindings_.standIns().contains(key)) unknown_ += std::string(key.substr(kPrefix.size())) + ' ';
  }

  // With a question mark behind what stands in for a reading, and a dash for a key that is absent.
  std::string of(std::initializer_list<std::string_view> keys) const {
    std::string text;
    for (const std::string_view key : keys) {
      const auto figure = figures_.find(key);
      text += (text.empty() ? "" : " ") + (figure == figures_.end() ? "-" : figure->second);
    }
    return text;
  }

  const std::string& unknown() const { return unknown_; }

 private:
  HostBindings bindings_;
  std::map<std::string_view, std::string> figures_;
  std::string unknown_;
};

std::string_view takeUntil(std::string_view& text, std::string_view mark) {
  const std::string_view taken = text.substr(0, text.find(mark));
  text.remove_prefix(std::min(taken.size() + mark.size(), text.size()));
  return taken;
}

// A value of ? cannot be read, one that begins with @ is what a link holds, none is no file.
void addAttribute(const FixtureTree& tree, const std::string& path, std::string_view value) {
  if (value == "?") {
    std::filesystem::create_directories(tree.at(path));
  } else if (value.starts_with('@')) {
    std::filesystem::create_symlink(value.substr(1), tree.at(path));
  } else if (!value.empty()) {
    tree.write(path, std::string(value) + '\n');
  }
}

// Two attributes whose values are written with a stroke between them.
struct Pair {
  std::string_view name;
  const char* first;
  const char* second;
};

constexpr Pair kPairs[] = {{"energy", "energy_now", "energy_full"},
                           {"charge", "charge_now", "charge_full"},
                           {"level", "brightness", "max_brightness"}};

// Devices are parted by " | " and begin with the type; then come attributes, each with a blank before its
// value. Short forms: kPairs, and "70000 hot" for a trip point.
void addDevices(const FixtureTree& tree, const std::string& class_and_prefix, std::string_view devices) {
  for (int number = 0; !devices.empty(); ++number) {
    std::string_view attributes = takeUntil(devices, " | ");
    const std::string folder = "class/" + class_and_prefix + std::to_string(number) + '/';
    addAttribute(tree, folder + "type", takeUntil(attributes, " "));
    for (int trip = 0; !attributes.empty();) {
      std::string_view value = takeUntil(attributes, ", ");
      const std::string name(takeUntil(value, " "));
      const auto pair = std::ranges::find(kPairs, name, &Pair::name);
      if (pair != std::end(kPairs)) {
        addAttribute(tree, folder + pair->first, takeUntil(value, "/"));
        addAttribute(tree, folder + pair->second, value);
      } else if (name.find_first_not_of("-0123456789?") == name.npos) {
        const std::string point = folder + "trip_point_" + std::to_string(trip++);
        addAttribute(tree, point + "_temp", name);
        addAttribute(tree, point + "_type", value);
      } else {
        addAttribute(tree, folder + name, value);
      }
    }
  }
}

struct Row {
  const char* what;
  const char* devices;
  const char* expected;
};

// Charge and capacity; plugged in and full.
const Row kSupplies[] = {
    {"nothing", "", "- - 0? 0?"},
    {"truncated, not rounded", "Battery charge 1/3", "3333 3 0? 0?"},
    {"0.57 is a little less in binary", "Battery capacity 57", "5699 100 0? 0?"},
    {"energy first", "Battery energy 5/10, charge 1/4, capacity 7", "5000 10 0? 0?"},
    {"pairs are never mixed", "Battery energy 5/, charge 1/4", "2500 4 0? 0?"},
    {"percent where no pair is whole", "Battery energy 5/, charge /2, capacity 7", "700 100 0? 0?"},
    {"percent above 100", "Battery capacity 117", "10000 100 0? 0?"},
    {"percent below 0", "Battery capacity -1", "0 100 0? 0?"},
    {"now above full", "Battery energy 11/10", "10000 10 0? 0?"},
    {"now below 0", "Battery energy -11/10", "0 10 0? 0?"},
    {"share of charge", "Battery charge /1600, charge_counter -77, capacity 43", "4300 1600 0? 0?"},
    {"share of energy first", "Battery energy /1600, charge /9, capacity 43", "4300 1600 0? 0?"},
    {"share of no whole unit", "Battery charge /3333, capacity 57", "5699 3333 0? 0?"},
    {"share above full", "Battery charge /1600, capacity 117", "10000 1600 0? 0?"},
    {"share in a sum", "Battery charge /1000, capacity 50 | Battery charge 250/1000", "3750 2000 0? 0?"},
    {"lone energy", "Battery energy 5/, charge /2", "-10000? - 0? 0?"},
    {"lone full energy", "Battery energy /5, charge 2/", "- 5 0? 0?"},
    {"lone charge below 0", "Battery charge -2/", "-10000? - 0? 0?"},
    {"sum", "Battery energy 5/10 | Battery energy 30/20, charge 1/2 | Battery status Unknown",
     "8333 30 0? 0?"},
    {"unit in common", "Battery energy 5/10, charge 1/2 | Battery charge 3/4", "6666 6 0? 0?"},
    {"mean of mixed units", "Battery energy 5/10 | Battery charge 1/4", "3750 100 0? 0?"},
    {"a pair of nothing is none", "Battery energy 5/10, charge 1/0 | Battery charge 1/4", "3750 100 0? 0?"},
    {"mean of percents", "Battery capacity 40 | Battery capacity 61", "5050 100 0? 0?"},
    {"one whole figure", "Battery capacity 50 | Battery energy 5/", "5000 100 0? 0?"},
    {"halves of two packs", "Battery energy 5/ | Battery energy /5", "- - 0? 0?"},
    {"empty packs", "Battery energy 5/0 | Battery energy /-9, capacity 9 | Battery charge 1/4",
     "2500 4 0? 0?"},
    {"beyond 64 bits in sum",
     "Battery energy 9223372036854775807/9223372036854775807 | "
     "Battery energy 9223372036854775807/9223372036854775807",
     "10000 2147483647 0? 0?"},
    {"mouse", "Battery scope Device, present 1, status Full, capacity 1 | Battery capacity 5",
     "500 100 0? 0?"},
    {"absent", "Battery present 0, status Full, capacity 1 | Battery capacity 5", "500 100 0? 0?"},
    {"present", "Battery scope System, present 1, capacity 5", "500 100 0? 0?"},
    {"no store", "BMS status Full, capacity 1 | ? status Full, capacity 1", "- - 0? 0?"},
    {"uninterruptible supply", "UPS status Charging, charge 1/2", "5000 2 1 0"},
    {"beside a battery", "Battery capacity 5 | UPS status Full, charge 1/2", "500 100 0? 0?"},
    {"beside a mouse", "Battery scope Device, capacity 5 | UPS status Full, capacity 50", "5000 100 1 1"},
    {"beside what is absent", "Battery present 0 | UPS status Discharging, capacity 50", "5000 100 0 0"},
    {"of a monitor", "UPS scope Device, status Full, capacity 50", "- - 0? 0?"},

    {"unreadable figures", "Battery status Discharging, energy ?/?, charge ?/?, capacity ?", "- - 0 0"},
    {"unreadable now", "Battery energy ?/1600", "- 1600 0? 0?"},
    {"unreadable full", "Battery energy 1500/?", "-10000? - 0? 0?"},
    {"unreadable now beside a percent", "Battery energy ?/1600, capacity 50", "5000 1600 0? 0?"},
    {"unreadable pack", "Battery energy ?/? | Battery status Full, energy 2/2", "10000 2 1 1"},
    {"unreadable scope and presence", "Battery scope ?, present ?, energy 1/2", "5000 2 0? 0?"},
    {"no number", "Battery energy many/1600 | Battery energy 15 mWh/1600", "- - 0? 0?"},

    {"charger alone", "Mains online 1", "- - 1 0?"},
    {"charger off", "Mains online 0", "- - 0 0?"},
    {"any charger", "Mains online 0 | USB_PD online 2 | Wireless online 0", "- - 1 0?"},
    {"a mouse's charger", "USB scope Device, online 1", "- - 0? 0?"},
    {"a mouse's is not the pack's", "USB scope Device, online 0 | Battery status Full", "- - 1 1"},
    {"online and discharging", "Mains online 1 | Battery status Discharging", "- - 1 0"},
    {"off and charging", "Mains online 0 | Battery status Charging", "- - 1 0"},
    {"off and full", "Mains online 0 | Battery status Full", "- - 0 1"},
    {"charger untold, charging", "Mains online ? | Battery status Charging", "- - 1 0"},
    {"charger untold, full", "Wireless online ? | Battery status Full", "- - 1 1"},
    {"charger untold, discharging", "Mains online ? | Battery status Discharging", "- - 0 0"},
    {"one charger tells", "Mains online ? | USB online 0 | Battery status Full", "- - 0 1"},
    {"nothing tells", "Mains online ? | Battery status Unknown", "- - 0? 0?"},
    {"a vendor's own word", "Battery status Cmd discharging", "- - 0? 0?"},
    {"any pack that charges", "Battery status Unknown | Battery status Charging", "- - 1 0?"},

    {"held, nobody knows at what", "Battery status Not charging", "- - 1 0"},
    {"held at 90 percent", "Battery status Not charging, energy 27/30", "9000 30 1 1"},
    {"held below", "Battery status Not charging, energy 26/30, charge 2/2, capacity 100", "8666 30 1 0"},
    {"held at a share", "Battery status Not charging, charge /30, capacity 90", "9000 30 1 1"},
    {"one not full", "Battery status Full | Battery status Charging", "- - 1 0"},
    {"a second entry that tells nothing", "Battery status Full | Battery present 1", "- - 1 1"},
    {"of a status alone", "Battery status Full | Battery status Unknown", "- - 1 0?"},
    {"of a figure alone", "Battery status Full | Battery capacity 100", "10000 100 1 0?"},
    {"nothing but entries that tell nothing", "Battery present 1 | Battery voltage_now 1", "- - 0? 0?"},
    {"empty packs' states", "Battery status Full | Battery status Charging, energy 0/0", "- - 1 1"},
    {"unknown but full", "Wireless online 1 | Battery status Unknown, energy 11/10", "10000 10 1 1"},
    {"unknown and not full", "Mains online 1 | Battery status Unknown, energy 9/10", "9000 10 1 0?"},
    {"unknown without power", "Mains online 0 | Battery status Unknown, energy 9/9", "10000 9 0 0?"},
};

const Row kBacklights[] = {
    {"none", "", "0?"},
    {"half", "raw level 50/100, actual_brightness 0", "5000"},
    {"off", "raw level 0/100", "0"},
    {"above the greatest", "raw level 101/100", "10000"},
    {"below the least", "raw level -1/100", "0"},
    {"firmware first", "? level 1/4 | raw level 1/4 | platform level 2/4 | firmware level 3/4", "7500"},
    {"then platform", "odd level 1/4 | raw level 1/4 | platform level 2/4", "5000"},
    {"known kinds before others", "odd level 1/4 | raw level 2/4", "5000"},
    {"by name", "raw level 1/4 | raw level 2/4", "2500"},
    {"enabled connector first",
     "raw level 1/4, device/subsystem @../../bus/platform | raw level 2/4, device/enabled disabled | "
     "raw level 3/4, device/subsystem @../../class/drm, device/enabled enabled",
     "7500"},
    {"then a platform device",
     "raw level 1/4, device/subsystem @../../class/drm, device/enabled disabled | raw level 2/4 | "
     "raw level 3/4, device/subsystem @../../bus/platform",
     "7500"},
    {"input devices last",
     "raw level 1/4, device/subsystem @../../bus/hid | raw level 2/4, device/subsystem @../../class/input | "
     "raw level 3/4",
     "7500"},
    {"the kind before the parent", "raw level 1/4, device/enabled enabled | platform level 2/4", "5000"},
    {"unreadable setting", "raw level ?/100", "0?"},
    {"unreadable bound", "raw level 7/?", "2147483647?"},
    {"bound of 0", "raw level 7/0", "0?"},
    {"bound below 0", "raw level 7/-5", "0?"},
    {"the chief one unreadable", "firmware level ?/4 | raw level 50/100", "0?"},
};

const Row kZones[] = {
    {"none", "", "0?"},
    {"below", "acpi mode enabled, temp 59999, 60000 hot", "0"},
    {"at", "acpi mode enabled, temp 60000, 60000 hot", "3"},
    {"no mode", "acpi temp 60000, 60000 passive", "2"},
    {"as far as it goes", "acpi temp 90000, 80000 critical, 70000 hot, 95000 active", "4"},
    {"the worst zone", "acpi temp 90000, 60000 hot | acpi temp 90000, 60000 active", "3"},
    {"switched off", "acpi mode disabled, temp 90000, 60000 hot | acpi temp 50000, 40000 active", "1"},
    {"all switched off", "acpi mode disabled, temp 90000, 60000 hot", "0?"},
    {"unreadable sensor", "acpi temp ?, 60000 hot", "0?"},
    {"as hot as can be", "acpi temp 150000, 150000 critical", "4"},
    {"hotter than can be", "acpi temp 150001, 60000 hot", "0?"},
    {"as cold as can be", "acpi temp -40000, 60000 hot", "0"},
    {"colder than can be", "acpi temp -40001, 60000 hot", "0?"},
    {"no trip points", "acpi temp 90000", "0?"},
    {"trip points that mean nothing", "acpi temp 90000, 0 hot, -1 hot, ? hot, 19999 hot, 150001 hot", "0?"},
    {"just one that does", "acpi temp 90000, 19999 critical, 20000 hot", "3"},
    {"of no known kind", "acpi temp 90000, 60000 mild, 60000 ?", "0?"},
    {"millivolts", "vbat policy low_limits_floor, temp 60000, 33000 critical", "0?"},
    {"percents",
     "soc policy low_limits_cap, temp 99000, 20000 hot | acpi policy step_wise, temp 1, 40000 hot", "0"},
};

TEST(DeviceReadingsTest, FiguresOfEachTree) {
  const struct {
    const char* class_and_prefix;
    std::initializer_list<std::string_view> keys;
    std::span<const Row> rows;
  } classes[] = {
      {"power_supply/supply", {kCharged, kMaxCapacity, kPluggedIn, kFullyCharged}, kSupplies},
      {"backlight/panel", {kBacklight}, kBacklights},
      {"thermal/thermal_zone", {kThermalLevel}, kZones},
  };
  for (const auto& [class_and_prefix, keys, rows] : classes) {
    for (const auto& [what, devices, expected] : rows) {
      const FixtureTree tree;
      addDevices(tree, class_and_prefix, devices);
      EXPECT_EQ(Snapshot(tree).of(keys), expected) << class_and_prefix << ": " << what;
    }
  }
}

TEST(DeviceReadingsTest, AStripOfKeysIsToldByItsName) {
  const FixtureTree tree(R"(class/backlight/appletb_backlight/brightness 1
class/backlight/appletb_backlight/max_brightness 2
)");
  EXPECT_EQ(Snapshot(tree).of({kBacklight}), "5000");
  addDevices(tree, "backlight/panel", "? level 1/4");
  EXPECT_EQ(Snapshot(tree).of({kBacklight}), "2500");
}

TEST(DeviceReadingsTest, AServerKnowsAllButWhatItLacks) {
  const FixtureTree tree;
  tree.write("meminfo", "MemTotal: 300 kB\nMemAvailable: 200 kB\n");
  tree.write("class/thermal/cooling_device0/temp", "99000\n");
  tree.write("class/thermal/cooling_device0/trip_point_0_temp", "50000\n");
  tree.write("class/thermal/cooling_device0/trip_point_0_type", "critical\n");
  const Snapshot server(tree);
  EXPECT_EQ(server.unknown(),
            "thermalLevel battery.usageSecs100x battery.standbySecs100x battery.fullyChargedOnce "
            "battery.pluggedIn battery.fullyCharged backlightLevel100x ");
  EXPECT_EQ(server.of({kLoad1, kLoad5, kLoad15, kJetsamLevel}), "29 250 0 66");
  EXPECT_EQ(server.of({kUsage, kStandby, kFullyChargedOnce, kCharged}), "-100? -100? 0? -");
  EXPECT_EQ(Snapshot(FixtureTree(), noLoad).of({kLoad1, kLoad5, kLoad15, kJetsamLevel}), "- - - 0?");
}

TEST(DeviceReadingsTest, AnUnreadableFileLosesItsOwnValueAlone) {
  for (const auto& [what, error, make] : kUnreadableFiles) {
    const FixtureTree tree;
    addDevices(tree, "power_supply/supply", "Battery energy /10, status Full");
    addDevices(tree, "backlight/panel", "raw max_brightness 9");
    addDevices(tree, "thermal/thermal_zone", "acpi 60000 hot");
    for (const char* path :
         {"power_supply/supply0/energy_now", "power_supply/supply0/scope", "power_supply/supply0/present",
          "power_supply/supply1", "power_supply/supply2/type", "backlight/panel0/brightness",
          "thermal/thermal_zone0/temp", "thermal/thermal_zone1"}) {
      make(tree.at(std::string("class/") + path));
    }
    make(tree.at("meminfo"));
    EXPECT_EQ(Snapshot(tree).of({kCharged, kMaxCapacity, kPluggedIn, kFullyCharged, kBacklight, kThermalLevel,
                                 kJetsamLevel}),
              "- 10 1 1 0? 0? 0?")
        << what;
  }
}

TEST(DeviceReadingsTest, MemoryLevelIsTheAvailablePart) {
  const std::pair<const char*, const char*> rows[] = {
      {"MemTotal: 300 kB\nMemAvailable: 301 kB\n", "100"},
      {"MemTotal: 18446744073709551615 kB\nMemAvailable: 9223372036854775807 kB\n", "50"},
      {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", "0?"},
      {"MemTotal: 300 kB\nMemFree: 200 kB\n", "0?"},
      {"MemAvailable: 200 kB\n", "0?"},
  };
  for (const auto& [meminfo, level] : rows) {
    const FixtureTree tree;
    tree.write("meminfo", meminfo);
    EXPECT_EQ(Snapshot(tree).of({kJetsamLevel}), level) << meminfo;
  }
}

}  // namespace
}  // namespace volorn::linux_host
