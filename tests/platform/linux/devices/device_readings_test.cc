#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

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
  std::string of(const std::vector<std::string_view>& keys) const {
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

// Each row of readings.txt, which tells of their language.
TEST(DeviceReadingsTest, FiguresOfEachTree) {
  const std::map<std::string, std::vector<std::string_view>, std::less<>> keys = {
      {"power_supply/supply", {kCharged, kMaxCapacity, kPluggedIn, kFullyCharged}},
      {"backlight/panel", {kBacklight}},
      {"thermal/thermal_zone", {kThermalLevel}}};
  std::ifstream rows(VOLORN_READINGS);
  auto of_class = keys.end();
  int count = 0;
  for (std::string line; std::getline(rows, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::string_view row = line;
    const std::string_view what = takeUntil(row, ": ");
    if (what.starts_with("= ")) {
      of_class = keys.find(what.substr(2));
      ASSERT_NE(of_class, keys.end()) << what;
      continue;
    }
    const FixtureTree tree;
    addDevices(tree, of_class->first, takeUntil(row, " => "));
    EXPECT_EQ(Snapshot(tree).of(of_class->second), row) << line;
    ++count;
  }
  EXPECT_GT(count, 90);
}

// So they are on most kernels. What leads nowhere, to itself or back to its class is passed over.
TEST(DeviceReadingsTest, EntriesMayBeLinks) {
  const FixtureTree tree;
  const std::pair<const char*, const char*> devices[] = {{"power_supply", "Battery charge 1/4"},
                                                         {"backlight", "raw level 1/4"},
                                                         {"thermal", "acpi temp 2, 20000 hot"}};
  for (const auto& [name, device] : devices) {
    const std::string folder = std::string("class/") + name + "/thermal_zone";
    addDevices(tree, std::string("../devices/") + name, device);
    for (const char* target : {"thermal_zone0", ".", "nowhere"}) {
      std::filesystem::create_symlink(target,
                                      tree.at(folder + std::to_string(std::size(std::string(target)))));
    }
    std::filesystem::create_symlink(tree.root() + "/devices/" + name + "0", tree.at(folder + "20"));
  }
  EXPECT_EQ(Snapshot(tree).of({kMaxCapacity, kBacklight, kThermalLevel}), "4 2500 0");
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
