#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_device_registry.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/linux_local_calendar.h"
#include "platform/linux/linux_state_notifier.h"
#include "platform/linux/linux_thermal.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

PropertyTable matching(const PropertyTable& properties) {
  return {{std::string(kPropertyMatchKey), PropertyValue{properties}}};
}

const PropertyTable kBacklightControl = matching({{"backlight-control", PropertyValue{true}}});

// The "brightness" table as its three values, where -1 is none.
std::vector<std::int64_t> brightnessBelow(const std::string& sys_root) {
  LinuxDeviceRegistry registry(sys_root);
  const auto parameters =
      registry.copyProperty(registry.findServiceMatching(kBacklightControl), "DisplayParameters");
  if (!parameters) return {};
  const PropertyTable& brightness = *std::get<PropertyTable>(parameters->value).table("brightness");
  std::vector<std::int64_t> values;
  for (const char* key : {"value", "min", "max"}) {
    values.push_back(brightness.find(key) ? brightness.integer(key) : -1);
  }
  return values;
}

std::optional<std::int64_t> capacity(LinuxDeviceRegistry& registry, const char* name) {
  const auto value = registry.copyProperty(registry.findServiceOfClass(kPowerSourceServiceClass), name);
  return value ? value->asInteger() : std::nullopt;
}

TEST(LinuxDeviceRegistryTest, BacklightIsTheOneNearestTheFirmware) {
  using Values = std::vector<std::int64_t>;
  const FixtureTree tree;
  EXPECT_EQ(brightnessBelow(tree.root()), Values{});
  // Each device comes before those added so far.
  const std::array<const char*, 3> devices[] = {{"a_untold", "", "1"},
                                                {"raw2", "raw", "2"},
                                                {"raw10", "raw", "3"},
                                                {"z_vendor", "platform", "4"},
                                                {"zz_acpi", "firmware", "5"}};
  for (const auto& [name, type, brightness] : devices) {
    const std::string folder = std::string("class/backlight/") + name;
    tree.write(folder + "/type", type);
    tree.write(folder + "/brightness", brightness);
    tree.write(folder + "/actual_brightness", "77");
    tree.write(folder + "/max_brightness", "100");
    EXPECT_EQ(brightnessBelow(tree.root()), (Values{std::atoi(brightness), 0, 100})) << name;
  }
}

TEST(LinuxDeviceRegistryTest, AServiceMatchesByEveryPropertyAsked) {
  const FixtureTree tree(R"(class/backlight/panel/brightness 5
class/power_supply/BAT0/type Battery
class/power_supply/BAT0/energy_now 5
class/power_supply/BAT0/energy_full 10
)");
  LinuxDeviceRegistry registry(tree.root());
  const ServiceHandle backlight = registry.findServiceMatching(kBacklightControl);
  const ServiceHandle power_source = registry.findServiceOfClass("PowerSource");
  EXPECT_NE(backlight, 0U);
  EXPECT_NE(power_source, 0U);
  EXPECT_NE(backlight, power_source);
  const PropertyValue yes{true};
  const PropertyValue ten{std::int64_t{10}};
  EXPECT_EQ(registry.findServiceMatching(matching({{"MaxCapacity", ten}})), power_source);
  EXPECT_EQ(registry.findServiceMatching(matching({{"MaxCapacity", yes}})), 0U);
  EXPECT_EQ(registry.findServiceMatching(matching({{"backlight-control", PropertyValue{false}}})), 0U);
  EXPECT_EQ(registry.findServiceMatching(matching({{"backlight-control", yes}, {"MaxCapacity", ten}})), 0U);
  EXPECT_EQ(registry.findServiceMatching({{"backlight-control", yes}}), 0U);
  EXPECT_EQ(registry.findServiceOfClass("Backlight"), 0U);
  EXPECT_FALSE(registry.copyProperty(0, "MaxCapacity"));
  EXPECT_FALSE(registry.copyProperty(power_source + 1, "MaxCapacity"));
  EXPECT_FALSE(registry.copyProperty(backlight, "MaxCapacity"));
}

TEST(LinuxDeviceRegistryTest, DisksAreWholeAndNoneCountsAnothersTraffic) {
  const FixtureTree sys(R"(block/sda/stat 3 9 8 9 5 9 16 9 0 0 0
                           block/vdb/stat nothing
                           block/nvme0n1/stat 1 0 1 0 1 0 1 0 0 0 0 0 0 0 0 0 0
                           block/nvme0c0n1/stat 1 0 1 0 1 0 1 0 0 0 0 0 0 0 0 0 0
                           block/nvme0c0n1/hidden 1
                           block/loop0/stat 7 7 7 7 7 7 7 7 7 7 7
                           block/ram0/stat 7 7 7 7 7 7 7 7 7 7 7
                           block/zram0/stat 7 7 7 7 7 7 7 7 7 7 7
                           block/md127/stat 7 7 7 7 7 7 7 7 7 7 7
                           block/dm-0/stat 7 7 7 7 7 7 7 7 7 7 7)");
  LinuxDeviceRegistry registry(sys.root());
  ASSERT_TRUE(registry.open());
  const auto disks = registry.findServices(kBlockStorageServiceClass);
  std::vector<std::array<std::int64_t, 4>> counters;
  int without = 0;
  ServiceHandle last = 0;
  while (const ServiceHandle disk = disks->next()) {
    std::optional<PropertyTable> properties;
    ASSERT_TRUE(registry.copyProperties(disk, properties));
    const PropertyTable* statistics = properties ? properties->table(kStatisticsProperty) : nullptr;
    if (!statistics) {
      ++without;
    } else {
      counters.push_back({statistics->integer(kReadOperationsKey), statistics->integer(kReadBytesKey),
                          statistics->integer(kWriteOperationsKey), statistics->integer(kWriteBytesKey)});
    }
    registry.releaseService(disk);
    last = disk;
  }
  const std::vector<std::array<std::int64_t, 4>> expected = {{1, 512, 1, 512}, {3, 4096, 5, 8192}};
  EXPECT_EQ(counters, expected);
  EXPECT_EQ(without, 1);
  std::optional<PropertyTable> properties;
  EXPECT_FALSE(registry.copyProperties(last, properties)) << "released";
}

TEST(LinuxStateNotifierTest, ATokenStandsForItsNameAndTheStateIsOfTheMoment) {
  const FixtureTree tree("class/power_supply/BAT0/type Battery\nclass/power_supply/BAT0/status Charging\n");
  LinuxStateNotifier notifier(tree.root());
  std::uint32_t plugged_in = 0, fully_charged = 0, other = 77;
  EXPECT_EQ(notifier.registerCheck(kPluggedInState, plugged_in), 0U);
  EXPECT_EQ(notifier.registerCheck(kFullyChargedState, fully_charged), 0U);
  EXPECT_NE(notifier.registerCheck("com.zorvik.quenby.other", other), 0U);
  EXPECT_EQ(other, 77U);
  std::uint64_t state = 77;
  EXPECT_NE(notifier.getState(0, state), 0U);
  EXPECT_NE(notifier.getState(other, state), 0U);
  EXPECT_EQ(state, 77U);
  const auto stateOf = [&](std::uint32_t token) {
    EXPECT_EQ(notifier.getState(token, state), 0U);
    return state;
  };
  EXPECT_EQ(stateOf(plugged_in), 1U);
  EXPECT_EQ(stateOf(fully_charged), 0U);
  tree.write("class/power_supply/BAT0/status", "Full\n");
  EXPECT_EQ(stateOf(fully_charged), 1U);
}

TEST(LinuxThermalTest, LevelIsHowFarTheWorstZoneHasPassedItsTripPoints) {
  // Mode, temperature and trip points of a zone, beside one that has passed its active trip point.
  const std::pair<const char*, std::int32_t> rows[] = {
      {"enabled 59999 60000 hot", 1},
      {"enabled 60000 60000 hot", 3},
      {"? 90000 60000 passive", 2},
      {"enabled 90000 80000 critical 70000 hot", 4},
      {"enabled 90000 80000 hot 70000 critical 95000 hot", 4},
      {"enabled 90000 60000 mild", 1},
      {"enabled 90000 0 hot -1 hot ? hot", 1},
      {"disabled 90000 60000 hot", 1},
      {"enabled ? 60000 hot", 1},
      {"enabled 150000 150000 hot", 3},
      {"enabled 150001 60000 hot", 1},
  };
  for (const auto& [zone, level] : rows) {
    const FixtureTree tree(R"(class/thermal/cooling_device0/temp 99000
class/thermal/cooling_device0/trip_point_0_temp 1
class/thermal/cooling_device0/trip_point_0_type critical
class/thermal/thermal_zone0/temp 50000
class/thermal/thermal_zone0/trip_point_0_temp 40000
class/thermal/thermal_zone0/trip_point_0_type active
)");
    const std::string folder = "class/thermal/thermal_zone1/";
    std::istringstream words{zone};
    std::string mode, temp, type;
    words >> mode >> temp;
    tree.write(folder + "mode", mode + '\n');
    tree.write(folder + "temp", temp + '\n');
    for (int trip = 0; words >> temp >> type; ++trip) {
      const std::string name = folder + "trip_point_" + std::to_string(trip);
      tree.write(name + "_temp", temp + '\n');
      tree.write(name + "_type", type + '\n');
    }
    EXPECT_EQ(LinuxThermal(tree.root()).CurrentThermalLevel(), level) << zone;
  }
}

TEST(LinuxKernelTest, LoadAveragesAsManyAsAskedAndTold) {
  const FixtureTree tree("loadavg 0.25 0.50 0.75 1/80 11206\n");
  LinuxKernel kernel(tree.root());
  double samples[] = {9, 9, 9, 9};
  for (const auto& [count, filled] : {std::pair{-1, 0}, {0, 0}, {2, 2}, {4, 3}}) {
    EXPECT_EQ(kernel.getloadavg(samples, count), filled);
    EXPECT_EQ(samples[2], filled == 3 ? 0.75 : 9);
  }
  EXPECT_EQ(samples[3], 9);
}

TEST(LinuxKernelTest, MemoryLevelIsTheAvailablePart) {
  const std::pair<const char*, std::int32_t> rows[] = {
      {"MemTotal: 300 kB\nMemAvailable: 200 kB\n", 66},
      {"MemTotal: 300 kB\nMemAvailable: 301 kB\n", 100},
      {"MemTotal: 18446744073709551615 kB\nMemAvailable: 9223372036854775807 kB\n", 50},
      {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", -1},  // the call fails
      {"MemTotal: 300 kB\nMemFree: 200 kB\n", -1},
      {"MemAvailable: 200 kB\n", -1},
  };
  for (const auto& [meminfo, level] : rows) {
    const FixtureTree tree;
    tree.write("meminfo", meminfo);
    std::int32_t value = -1;
    errno = 0;
    EXPECT_EQ(LinuxKernel(tree.root()).sysctlbyname("kern.memorystatus_level", value), level < 0 ? -1 : 0);
    EXPECT_EQ(value, level) << meminfo;
    EXPECT_EQ(errno, level < 0 ? ENOENT : 0);
    EXPECT_EQ(LinuxKernel(tree.root()).sysctlbyname("kern.other", value), -1);
  }
}

TEST(LinuxDevicesTest, AnUnreadableFileLosesItsOwnValueAlone) {
  for (const auto& [what, error, make] : kUnreadableFiles) {
    const FixtureTree tree(R"(class/power_supply/BAT0/type Battery
class/power_supply/BAT0/energy_full 10
class/power_supply/BAT0/status Full
class/backlight/panel/max_brightness 9
class/thermal/thermal_zone0/trip_point_0_temp 1
class/thermal/thermal_zone0/trip_point_0_type hot
)");
    for (const char* path :
         {"class/power_supply/BAT0/energy_now", "class/power_supply/BAT0/scope",
          "class/power_supply/BAT0/present", "class/power_supply/BAT1", "class/power_supply/BAT2/type",
          "class/backlight/panel/brightness", "class/thermal/thermal_zone0/temp",
          "class/thermal/thermal_zone1", "loadavg", "meminfo"}) {
      make(tree.at(path));
    }
    LinuxDeviceRegistry registry(tree.root());
    EXPECT_EQ(capacity(registry, "CurrentCapacity"), std::nullopt) << what;
    EXPECT_EQ(capacity(registry, "MaxCapacity"), 10) << what;
    LinuxStateNotifier notifier(tree.root());
    std::uint32_t token = 0;
    std::uint64_t state = 0;
    notifier.registerCheck(kFullyChargedState, token);
    EXPECT_EQ(notifier.getState(token, state), 0U);
    EXPECT_EQ(state, 1U) << what;
    EXPECT_EQ(brightnessBelow(tree.root()), (std::vector<std::int64_t>{-1, 0, 9})) << what;
    EXPECT_EQ(LinuxThermal(tree.root()).CurrentThermalLevel(), 0) << what;
    LinuxKernel kernel(tree.root());
    double samples[3];
    std::int32_t level = 0;
    EXPECT_EQ(kernel.sysctlbyname("kern.memorystatus_level", level), -1) << what;
    const bool is_a_number = std::string_view(what) == "beyond 64 bits";
    EXPECT_EQ(kernel.getloadavg(samples, 3), is_a_number ? 1 : -1) << what;
  }
}

TEST(LinuxLocalCalendarTest, ShowsTheWallClockOfTheZoneThatHolds) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    const char* zone;
    double seconds_since_1970;
    std::int32_t hour, minute, second;
  } rows[] = {
      {"UTC0", 86399.999, 23, 59, 59},
      {"UTC0", 86400.0, 0, 0, 0},
      {"UTC0", -0.5, 23, 59, 59},
      {"XXX-5:30", 86399.0, 5, 29, 59},
      // Four o'clock on the morning whose clocks went from two to three.
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1774749600.0, 4, 0, 0},
      {"UTC0", kNan, 0, 0, 0},
      {"UTC0", std::numeric_limits<double>::infinity(), 0, 0, 0},
      {"UTC0", -0x1p63, 0, 0, 0},
      {"UTC0", 0x1p63, 0, 0, 0},
  };
  LinuxLocalCalendar calendar;
  for (const auto& [zone, seconds, hour, minute, second] : rows) {
    setenv("TZ", zone, 1);
    const auto time = calendar.timeOfDay(std::make_shared<const Date>(Date::fromSecondsSince1970(seconds)));
    EXPECT_EQ((std::array{time.hour, time.minute, time.second}), (std::array{hour, minute, second}))
        << seconds;
  }
  EXPECT_EQ(calendar.timeOfDay(nullptr).hour, 0);
  unsetenv("TZ");
}

TEST(LinuxClockTest, BothReadingsAreOfOneClock) {
  LinuxClock clock;
  const double before = clock.now().secondsSince1970();
  const auto time = static_cast<double>(clock.time());
  EXPECT_GE(time, std::floor(before));
  EXPECT_LE(time, clock.now().secondsSince1970());
}

}  // namespace
}  // namespace volorn::linux_host
