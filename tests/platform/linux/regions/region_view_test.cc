#include "platform/linux/regions/region_view.h"

#include <gtest/gtest.h>

#include "tests/platform/linux/regions/region_text.h"

namespace volorn::linux_host {
namespace {

constexpr std::uint32_t kX86_64 = 0x1000007;
constexpr FileId kProgram = {.device = 8, .inode = 1};
constexpr FileId kLibrary = {.device = 8, .inode = 2};
constexpr FileId kOtherLibrary = {.device = 9, .inode = 2};
constexpr FileId kData = {.device = 8, .inode = 3};

Mapping at(std::uint64_t start, std::uint64_t pages, std::uint32_t protection, FileId file = {},
           std::uint64_t private_pages = 0, std::uint64_t shared_pages = 0) {
  Mapping mapping;
  mapping.start = start;
  mapping.end = start + pages * 4096;
  mapping.protection = protection;
  mapping.file = file;
  mapping.private_pages = private_pages;
  mapping.shared_pages = shared_pages;
  return mapping;
}

std::vector<ProcessRegion> show(RegionView& view, const std::vector<Mapping>& mappings,
                                const RegionOwner& owner = ownerWith(kX86_64),
                                RegionWalk walk = RegionWalk::of_task) {
  std::vector<ProcessRegion> regions(1);
  view.show(mappings, owner, walk, regions);
  return regions;
}

TEST(RegionViewTest, WhatIsInAMappingDecidesHowItIsShown) {
  Mapping swapped = at(0x1000, 4, 3);
  swapped.is_swapped = true;
  Mapping put_aside_and_swapped = at(0x1000, 4, 0);
  put_aside_and_swapped.is_swapped = true;
  const FileId first_shm_segment = {.device = 1, .inode = 0};
  const struct {
    const char* what;
    Mapping mapping;
    const char* shown;
  } rows[] = {
      {"anonymous, without access", at(0x1000, 4, 0), "1000+4000 mode 3 of 1, 0+0 reserved\n"},
      {"without access, but swapped", put_aside_and_swapped, "1000+4000 mode 2 of 1, 0+0\n"},
      {"anonymous, swapped", swapped, "1000+4000 mode 2 of 1, 0+0\n"},
      {"file, untouched", at(0x1000, 4, 1, kData), "1000+4000 mode 2 of 1, 0+0\n"},
      {"shared memory, untouched", at(0x1000, 4, 3, first_shm_segment), "1000+4000 mode 2 of 1, 0+0\n"},
  };
  for (const auto& [what, mapping, shown] : rows) {
    RegionView view(4096);
    EXPECT_EQ(describe(show(view, {mapping})), shown) << what;
  }
}

TEST(RegionViewTest, LibrariesFillTheRangeAndAllElseKeepsOut) {
  const std::vector<Mapping> mappings = {
      at(0x400000, 2, 5, kProgram, 2),
      at(0x402000, 1, 3, kProgram, 1),
      at(0x600000, 0x8FE01, 5, kOtherLibrary, 1),  // first come, but a page larger than the range
      at(0x7F0000000000, 1, 1, kLibrary, 0, 1),
      at(0x7F0000001000, 2, 5, kLibrary, 1, 1),
      at(0x7F0000003000, 1, 3),
      at(0x7F0000010000, 1, 1, kData, 1),
      at(0x7FFF6FFFF000, 1, 3, {}, 1),  // ends where the range begins
      at(0x7FFF70000000, 1, 3, kLibrary, 1),
      at(0x7FFF70001000, 4, 3, {}, 4),
      at(0x7FFFFFDFF000, 2, 3, {}, 1, 1),  // reaches beyond the range
      at(0x7FFFFFE01000, 1, 3, {}, 1),
  };
  RegionView view(4096);
  EXPECT_EQ(describe(show(view, mappings)),
            "400000+2000 mode 2 of 1, 2+0\n"
            "402000+1000 mode 2 of 1, 1+0\n"
            "600000+8fe01000 mode 2 of 1, 1+0\n"
            "7f0000003000+1000 mode 3 of 1, 0+0\n"
            "7f0000010000+1000 mode 2 of 1, 1+0\n"
            "7fff6ffff000+1000 mode 2 of 1, 1+0\n"
            "7fff70000000+1000 mode 1 of 2, 0+1\n"
            "7fff70001000+1000 mode 2 of 1, 1+0\n"
            "7fff70002000+1000 mode 1 of 2, 0+1\n"
            "7fff70003000+1000 mode 2 of 1, 1+0\n"
            "7fffffe01000+1000 mode 2 of 1, 1+0\n"
            "10007fff70001000+4000 mode 2 of 1, 4+0\n"
            "10007fffffdff000+2000 mode 1 of 2, 1+1\n");
}

TEST(RegionViewTest, TheRangeIsThatOfTheProcessorTypeOrTheOwnTask) {
  const struct {
    std::uint32_t cpu_type;
    RegionWalk walk;
    std::uint64_t library;
  } rows[] = {
      {7, RegionWalk::of_task, 0x90000000},
      {0x100000C, RegionWalk::of_task, 0x180000000},
      {7, RegionWalk::of_own_task, 0x7FFF60000000},
      {0, RegionWalk::of_own_task, 0x7FFF60000000},
  };
  for (const auto& [cpu_type, walk, library] : rows) {
    RegionView view(4096);
    const auto regions =
        show(view, {at(0x1000, 1, 5, kLibrary), at(library, 1, 3, {}, 1)}, ownerWith(cpu_type), walk);
    ASSERT_EQ(regions.size(), 2U);
    EXPECT_EQ(regions[0].address, library) << cpu_type;
    EXPECT_EQ(regions[0].protection, 5U);
    EXPECT_EQ(regions[1].address, library + (1ULL << 60)) << cpu_type;
  }
  RegionView view(4096);
  EXPECT_TRUE(show(view, {at(0x1000, 1, 5, kLibrary)}, ownerWith(0)).empty());
  // The first of the two ranges of the walker's own task is read, too.
  const auto regions = show(view, {at(0x90000000, 1, 3)}, ownerWith(kX86_64), RegionWalk::of_own_task);
  EXPECT_EQ(regions.at(0).address, 0x90000000 + (1ULL << 60));
}

TEST(RegionViewTest, AnObjectKeepsItsIdInWhateverProcess) {
  RegionOwner first = ownerWith(kX86_64);
  RegionOwner second = first;
  second.pid = 8;
  RegionOwner successor = first;
  ++successor.start_ticks;
  const struct {
    RegionOwner owner;
    std::uint64_t start, offset;
    FileId file;
    std::uint32_t id;
  } rows[] = {
      {first, 0x1000, 0, kData, 1},
      {first, 0x1000, 0x1000, kData, 2},
      {second, 0x5000, 0x1000, kData, 2},
      {first, 0x1000, 0, kLibrary, 3},
      {first, 0x1000, 0, kOtherLibrary, 4},
      {first, 0x1000, 0, {}, 5},
      {second, 0x1000, 0, {}, 6},
      {successor, 0x1000, 0, {}, 7},
      {first, 0x2000, 0, {}, 8},
      {first, 0x1000, 0, {}, 5},
  };
  RegionView view(4096);
  for (const auto& [owner, start, offset, file, id] : rows) {
    Mapping mapping = at(start, 1, 3, file, 0, 1);
    mapping.file_offset_bytes = offset;
    EXPECT_EQ(show(view, {mapping}, owner).at(0).info.object_id, id)
        << owner.pid << ' ' << start << ' ' << offset;
  }
}

}  // namespace
}  // namespace volorn::linux_host
