#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "platform/linux/devices/linux_device_registry.h"
#include "platform/linux/devices/linux_state_notifier.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_kernel.h"
#include "platform/linux/linux_local_calendar.h"
#include "platform/snapshot_keys.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

TEST(LinuxDeviceRegistryTest, OnlyThePowerSourceHasAClassAndOnlyTheBacklightMatches) {
  const FixtureTree tree(R"(class/backlight/panel/brightness 5
class/power_supply/BAT0/type Battery
class/power_supply/BAT0/charge_full 10
)");
  SupplyReadings supplies(tree.root());
  LinuxDeviceRegistry registry(tree.root(), supplies);
  const auto find = [&](const PropertyTable& properties) {
    return registry.findServiceMatching({{std::string(kPropertyMatchKey), PropertyValue{properties}}});
  };
  const PropertyValue yes{true};
  const ServiceHandle backlight = find({{"backlight-control", yes}});
  const ServiceHandle power_source = registry.findServiceOfClass(kPowerSourceServiceClass);
  EXPECT_NE(backlight, 0U);
  EXPECT_NE(power_source, 0U);
  EXPECT_NE(backlight, power_source);
  EXPECT_EQ(registry.copyProperty(power_source, "MaxCapacity"), PropertyValue{10.0});
  for (const ServiceHandle none : {0U, backlight, power_source + 1}) {
    EXPECT_FALSE(registry.copyProperty(none, "MaxCapacity"));
  }
  EXPECT_EQ(registry.findServiceOfClass("Backlight"), 0U);
  EXPECT_EQ(registry.findServiceMatching({{"backlight-control", yes}}), 0U);
  EXPECT_EQ(find({{"backlight-control", yes}, {"other", yes}}), 0U);
  EXPECT_EQ(find({{"backlight-control", PropertyValue{false}}}), 0U);
}

TEST(LinuxDeviceRegistryTest, DisksAreWholeAndNoneCountsAnothersTraffic) {
  const FixtureTree sys(R"(block/sda/stat 3 9 8 9 5 9 16 9 0 0 0
                           block/sda/sda1/stat 7 7 7 7 7 7 7 7 7 7 7
                           block/vdb/stat nothing
                           block/nvme0n1/stat 1 0 1 0 1 0 1 0 0 0 0 0 0 0 0 0 0
                           block/nvme0c0n1/hidden 1
                           block/cas0-1/slaves/sda/dev 8:0)");
  for (const char* name : {"loop0", "zloop0", "ram0", "zram0", "md127", "md_home", "dm-0", "bcache0", "drbd1",
                           "zd16", "cas0-1", "nvme0c0n1"}) {
    sys.write(std::string("block/") + name + "/stat", "7 7 7 7 7 7 7 7 7 7 7\n");
  }
  for (const char* name : {"mmcblk0", "mmcblk0boot0", "nbd0", "rbd0"}) {
    sys.write(std::string("block/") + name + "/stat", "0 0 0 0 0 0 0 0 0 0 0\n");
    std::filesystem::create_directory(sys.at(std::string("block/") + name + "/slaves"));
  }
  SupplyReadings supplies(sys.root());
  LinuxDeviceRegistry registry(sys.root(), supplies);
  ASSERT_TRUE(registry.open());
  const auto disks = registry.findServices(kBlockStorageServiceClass);
  using Counters = std::array<std::int64_t, 4>;
  std::vector<Counters> counters;
  int without = 0;
  ServiceHandle last = 0;
  while (const ServiceHandle disk = disks->next()) {
    std::optional<PropertyTable> properties;
    ASSERT_TRUE(registry.copyProperties(disk, properties));
    if (const PropertyTable* table = properties ? properties->table(kStatisticsProperty) : nullptr) {
      counters.push_back({table->integer(kReadOperationsKey), table->integer(kReadBytesKey),
                          table->integer(kWriteOperationsKey), table->integer(kWriteBytesKey)});
    } else {
      ++without;
    }
    registry.releaseService(disk);
    last = disk;
  }
  EXPECT_EQ(counters, (std::vector<Counters>{{}, {}, {}, {1, 512, 1, 512}, {}, {3, 4096, 5, 8192}}));
  EXPECT_EQ(without, 1);
  std::optional<PropertyTable> properties;
  EXPECT_FALSE(registry.copyProperties(last, properties)) << "released";
}

TEST(LinuxStateNotifierTest, ATokenStandsForItsNameAndAStateAskedForAgainIsReadAgain) {
  const FixtureTree tree("class/power_supply/BAT0/type Battery\nclass/power_supply/BAT0/status Charging\n");
  StandIns stand_ins;
  SupplyReadings supplies(tree.root());
  LinuxStateNotifier notifier(supplies, stand_ins);
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
  tree.write("class/power_supply/BAT0/status", "Discharging\n");
  EXPECT_EQ(stateOf(plugged_in), 1U) << "of the moment at which the other one was";
  EXPECT_FALSE(stand_ins.contains(snapshot_key::kFullyCharged));
  tree.write("class/power_supply/BAT0/status", "Unknown\n");
  EXPECT_EQ(stateOf(fully_charged), 0U);
  EXPECT_TRUE(stand_ins.contains(snapshot_key::kFullyCharged)) << "the newest query decides";
}

TEST(LinuxKernelTest, LoadAveragesAsManyAsAsked) {
  LinuxKernel kernel("/proc", RegionSource::best, [](struct sysinfo* info) {
    std::ranges::fill(info->loads, 3UL << (SI_LOAD_SHIFT - 2));
    return 0;
  });
  double samples[] = {9, 9, 9, 9};
  for (const auto& [count, filled] : {std::pair{-1, 0}, {0, 0}, {2, 2}, {4, 3}}) {
    EXPECT_EQ(kernel.getloadavg(samples, count), filled);
    EXPECT_EQ(samples[2], filled == 3 ? 0.75 : 9);
  }
  EXPECT_EQ(samples[3], 9);
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
