#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>

#include "tests/platform/linux/fixture_tree.h"
#include "tests/platform/linux/regions/helper_process.h"
#include "tests/platform/linux/regions/region_text.h"

namespace volorn::linux_host {
namespace {

FileDescriptor openFolder(const std::string& path) {
  return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

constexpr std::uint32_t kX86_64 = 0x1000007;

// Steps of an Area, the mapping looked at being that at its start.
constexpr struct {
  const char* what;
  const char* before;     // in this process, before it forks the helper
  const char* in_helper;  // in the helper
  const char* shown;
} kScenarios[] = {
    {"untouched", "", "a8", "8000 mode 3 of 1, 0+0\n"},
    {"zero pages", "", "a8 r8", "8000 mode 3 of 1, 0+0\n"},
    {"zero pages, half of them written", "", "a8 r8 w4", "8000 mode 2 of 1, 4+0\n"},
    {"huge zero page", "", "a512 H512 r512 N512", "200000 mode 3 of 1, 0+0\n"},
    {"huge page given back in part", "", "a512 H512 w512 N512 d256", "200000 mode 2 of 1, 100+0\n"},
    {"guard pages", "", "a8 g8", "8000 mode 3 of 1, 0+0\n"},
    {"forked, half of it written since", "a8 w8", "w4", "8000 mode 1 of 2, 4+4\n"},
    {"forked, with zero pages", "a8 w4", "r8 w2", "8000 mode 1 of 2, 2+2\n"},
    {"large and mostly holes", "a4096 N4096 w256 w1@3000", "w128 w1@4095 r1@2000",
     "1000000 mode 1 of 2, 81+81\n"},
    {"shared memory of its own", "", "s8 w4", "8000 mode 2 of 1, 4+0\n"},
    {"shared memory with a relative", "s8 w8", "r8", "8000 mode 1 of 2, 0+8\n"},
    {"memfd", "", "m8 w8", "8000 mode 2 of 1, 8+0\n"},
    {"memfd, mapped twice", "", "m8 m8@16 w8 w8@16", "8000 mode 1 of 2, 0+8\n"},
    {"deleted file", "", "f8 w8", "8000 mode 2 of 1, 8+0\n"},
    {"a relative's file, half of it written", "f8 r8", "p8 r8 w4", "8000 mode 1 of 2, 4+4\n"},
    {"zero pages of a device", "", "z8 r8 w2", "8000 mode 2 of 1, 2+0\n"},
    {"huge zero page of a device", "", "z512 H512 r512 N512", "200000 mode 2 of 1, 0+0\n"},
    {"huge zero pages of a device, large", "", "z2048 N2048 w2 H2048 r1536@512 N2048",
     "800000 mode 2 of 1, 2+0\n"},
    {"huge pages of hugetlb", "", "h512", "200000 mode 2 of 1, 0+0\n"},
};

TEST(LiveRegionsTest, BothSourcesShowWhatEachMappingHolds) {
  if (kPage != 4096) GTEST_SKIP() << "the scenarios are written for pages of 4 KiB";
  ProcessRegions readers[] = {ProcessRegions(RegionSource::page_map), ProcessRegions(RegionSource::smaps)};
  for (const auto& [what, before, in_helper, shown] : kScenarios) {
    const Area area;
    ASSERT_TRUE(area.take(before)) << what;
    const Helper helper([&, steps = in_helper] { return area.take(steps); });
    if (!helper.isSetUp()) {
      std::cerr << "not offered here: " << what << '\n';
      continue;
    }
    const FileDescriptor folder = openFolder("/proc/" + helper.pid());
    std::vector<ProcessRegion> regions;
    std::string texts[2];
    // Between two looks this process may write to what is its relative's, too.
    for (int attempt = 0; attempt < 20 && (attempt == 0 || texts[0] != texts[1]); ++attempt) {
      for (const int i : {0, 1}) {
        readers[i].read(folder.get(), ownerWith(kX86_64), RegionWalk::of_task, regions);
        texts[i] = describe(regions);
      }
    }
    EXPECT_EQ(texts[0], texts[1]) << what;
    EXPECT_TRUE(std::ranges::is_sorted(regions, {}, &ProcessRegion::address));
    std::erase_if(regions, [&](const ProcessRegion& region) { return region.address != area.address(); });
    const std::string text = describe(regions);
    EXPECT_EQ(text.substr(text.find('+') + 1), shown) << what;
  }
}

TEST(LiveRegionsTest, TheOwnTasksLibrariesFillItsRange) {
  ProcessRegions reader;
  std::vector<ProcessRegion> regions;
  reader.read(openFolder("/proc/self").get(), ownerWith(kX86_64), RegionWalk::of_own_task, regions);
  constexpr std::uint64_t kRangeStart = 0x7FFF60000000;
  auto region = std::ranges::find(regions, kRangeStart, &ProcessRegion::address);
  std::uint64_t code_pages = 0;
  for (std::uint64_t next = kRangeStart; region != regions.end() && region->address == next; ++region) {
    next += region->size_bytes;
    const RegionTopInfo& info = region->info;
    EXPECT_EQ(info.share_mode, ShareMode::copy_on_write);
    if (region->protection & kProtectionExecute) {
      code_pages += info.private_pages_resident + info.shared_pages_resident;
    }
  }
  EXPECT_GT(code_pages, 0U);
  EXPECT_TRUE(region == regions.end() || region->address >= kRangeStart + 0xA0000000);
}

// -1 when they are not known.
int countRegions(ProcessRegions& reader, const FileDescriptor& folder,
                 const RegionOwner& owner = ownerWith(kX86_64)) {
  std::vector<ProcessRegion> regions(1);
  const bool are_known = reader.read(folder.get(), owner, RegionWalk::of_task, regions);
  return are_known ? static_cast<int>(regions.size()) : -1;
}

TEST(LiveRegionsTest, WhatCannotBeReadIsNotKnown) {
  for (const RegionSource source : {RegionSource::best, RegionSource::page_map, RegionSource::smaps}) {
    ProcessRegions reader(source);
    Helper helper([] { return true; });
    const FileDescriptor folder = openFolder("/proc/" + helper.pid());
    EXPECT_GT(countRegions(reader, folder), 0);
    helper.end();
    EXPECT_EQ(countRegions(reader, folder), -1) << "gone";
    EXPECT_EQ(countRegions(reader, folder, ownerWith(kX86_64, 0, 0)), 0) << "kernel thread";
    if (geteuid() != 0) continue;
    const std::string parent = "/proc/" + std::to_string(getpid());
    const Helper nobody([&] {
      return setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0 &&
             countRegions(reader, openFolder(parent)) == -1;
    });
    EXPECT_TRUE(nobody.isSetUp()) << "without rights";
  }
}

TEST(LiveRegionsTest, TheTextServesSparseProcessesAndKernelsWithoutTheQuery) {
  const std::string smaps = "1000-3000 rw-p 00000000 00:00 0 \nPrivate_Dirty: 64 kB\n";
  const FixtureTree tree;
  tree.write("smaps", smaps);
  const auto countRead = [&](std::uint64_t mapped_pages, std::uint64_t resident_pages) {
    ProcessRegions reader;
    return countRegions(reader, openFolder(tree.root()), ownerWith(7, mapped_pages, resident_pages));
  };
  EXPECT_EQ(countRead(6400, 99), 1);
  EXPECT_EQ(countRead(6400, 100), -1) << "there is no `maps` to ask";
  tree.write("maps", "");  // a file that knows no query
  tree.write("pagemap", "");
  EXPECT_EQ(countRead(6400, 100), 1);
  tree.write("smaps", smaps + "3000-4000 rw-p");
  EXPECT_EQ(countRead(6400, 99), -1) << "the text ends within a line";
}

}  // namespace
}  // namespace volorn::linux_host
