#include <array>
#include <vector>

#include "tests/failing_allocation.h"
#include "tests/libtop/sampler_fixture.h"

namespace volorn {
namespace {

constexpr std::int32_t kPid = 42;

class MemoryRegionsTest : public SamplerTest {
 protected:
  // In pages: private and shared resident, private and empty virtual, shared-library private; and the
  // regions.
  using Sizes = std::array<std::uint64_t, 6>;
  static Sizes sizesOf(std::int32_t pid) {
    const ProcessSample& p = process(pid);
    return {p.private_resident / kPage, p.shared_resident / kPage, p.private_virtual / kPage,
            p.empty_virtual / kPage,    p.shlib_private / kPage,   p.region_count};
  }

  // How many regions were asked for since the last question.
  std::size_t asked() {
    const auto is_region = [](const std::string& call) { return call.starts_with("mach_vm_region 12"); };
    const auto count = std::count_if(host.calls.begin(), host.calls.end(), is_region);
    host.calls.clear();
    return static_cast<std::size_t>(count);
  }

  fake::FakeTask& task = kernel.addTask(kPid, "worker");
};

TEST_F(MemoryRegionsTest, ShareModes) {
  using enum ShareMode;
  struct Case {
    std::vector<RegionTopInfo> infos;
    Sizes sizes;
    std::int32_t pid = kPid;
    std::uint64_t address = kPage;
    std::uint64_t shared_total = 0;  // pages
  };
  const Case kCases[] = {
      {{top(private_pages, 3, 2)}, {5, 0, 16, 0, 0, 1}},
      {{top(large_page, 3, 2)}, {5, 0, 16, 0, 0, 1}},
      {{top(empty, 3, 2)}, {0, 0, 0, 16, 0, 1}},
      {{top(copy_on_write, 3, 2, 1, 1)}, {5, 0, 16, 0, 0, 1}},  // nobody else's
      {{top(copy_on_write, 3, 2)}, {3, 2, 3, 0, 0, 1}, kPid, kPage, 2},
      {{top(shared, 3, 2)}, {0, 2, 0, 0, 0, 1}, kPid, kPage, 2},
      {{top(shared, 3, 2, 1, 1)}, {2, 0, 16, 0, 0, 1}},  // every reference is its own
      // Whether an object is private is told by its first region, what is private besides by each.
      {{top(shared, 3, 2), top(copy_on_write, 3, 2)}, {5, 0, 35, 0, 0, 2}},
      {{top(copy_on_write, 3, 2), top(shared, 3, 2)}, {3, 2, 3, 0, 0, 2}, kPid, kPage, 2},
      {{top(copy_on_write, 3, 2)}, {3, 0, 16, 0, 0, 1}, 0},
      {{top(shared, 3, 2)}, {0, 0, 0, 0, 0, 1}, 0},
      // The address space ends.
      {{top(empty, 0, 0), top(empty, 0, 0)}, {0, 0, 0, 16, 0, 1}, kPid, 0 - kSize},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    kernel.tasks.clear();
    kernel.addTask(c.pid, "worker").regions = regionsFrom(c.address, c.infos);
    ASSERT_EQ(start(), 0);
    const SystemSample& tsamp = sample();
    EXPECT_EQ(sizesOf(c.pid), c.sizes);
    EXPECT_EQ(tsamp.shared_resident_total, c.shared_total * kPage);
    EXPECT_EQ(flat(tsamp.private_resident_total, tsamp.region_count_total),
              (Values{c.sizes[0] * kPage, c.sizes[5]}));
    sample(false);
    const ProcessSample& p = process(c.pid);
    EXPECT_EQ(flat(p.private_resident_prev, p.private_virtual_prev, p.empty_virtual_prev),
              (Values{c.sizes[0] * kPage, c.sizes[2] * kPage, c.sizes[3] * kPage}));
  }
}

// One object through three owners and two samples.
TEST_F(MemoryRegionsTest, SharedObjectCountsOncePerOwner) {
  const auto shared = [](std::uint32_t ref_count, std::uint32_t shared_pages = 4) {
    return top(ShareMode::shared, 9, shared_pages, 7, ref_count);
  };
  // Two of its three references in the first process, the third in the second, all it knows of in the third.
  // What the second mapping says of the object is not listened to.
  task.regions = regionsFrom(kPage, {shared(3), shared(2, 9)});
  kernel.addTask(kPid + 1, "next").regions = regionsFrom(kPage, {shared(3)});
  kernel.addTask(kPid + 2, "last").regions = regionsFrom(kPage, {shared(3), shared(3), shared(3), shared(3)});
  const SystemSample& tsamp = sample();
  EXPECT_EQ(sizesOf(kPid), (Sizes{0, 4, 0, 0, 0, 2}));
  EXPECT_EQ(sizesOf(kPid + 1), (Sizes{0, 4, 0, 0, 0, 1}));
  // The third mapping makes it private, with the sizes of all mappings so far; the fourth makes it shared
  // again.
  EXPECT_EQ(sizesOf(kPid + 2), (Sizes{0, 4, 0, 0, 0, 4}));
  EXPECT_EQ(tsamp.shared_resident_total, 4 * kPage);

  kernel.tasks.at(kPid + 2).regions.pop_back();
  sample();
  EXPECT_EQ(sizesOf(kPid + 1), (Sizes{0, 4, 0, 0, 0, 1}));
  EXPECT_EQ(sizesOf(kPid + 2), (Sizes{4, 0, 13 * 16, 0, 0, 3}));
  const ProcessSample& last = process(kPid + 2);
  EXPECT_EQ(flat(last.private_virtual_prev, last.shared_resident_prev, last.region_count_prev),
            (Values{0, 4 * kPage, 4}));
  EXPECT_EQ(tsamp.shared_resident_total, 0U);  // it is one process's alone
}

TEST_F(MemoryRegionsTest, SumOfSizesWraps) {
  task.regions = {{.address = 0, .size = 0x8000'0000, .top = top(ShareMode::shared, 0, 4, 7, 1)}};
  sample();
  EXPECT_EQ(process(kPid).private_virtual, 0xFFFF'FFFF'8000'0000U);
  // The second to be listed finds an object that was another's alone.
  kernel.addTask(kPid + 1, "next").regions = task.regions;
  kernel.lists_tasks_backwards = true;
  ASSERT_EQ(start(), 0);
  sample();
  EXPECT_EQ(sizesOf(kPid), (Sizes{0, 0, 0, 0, 0, 1}));
}

struct RangeRow {
  std::uint32_t cpu_type;
  std::uint64_t start;
  std::uint64_t end;
  std::uint64_t walk_limit;  // of the virtual size
};

constexpr RangeRow kRangeRows[] = {
    {7, 0x9000'0000, 0xB000'0000, 0x2000'0000},
    {18, 0x9000'0000, 0xB000'0000, 0x2000'0000},
    {12, 0x2C00'0000, 0x4000'0000, 0x1400'0000},
    {0x1000007, 0x7FFF'7000'0000, 0x7FFF'FFE0'0000, 0x8FE0'0000},
    {0x1000012, 0x7FFF'6000'0000, 0x8000'0000'0000, 0xA000'0000},
    {0x100000C, 0x1'8000'0000, 0x1'A000'0000, 0},
};

TEST_F(MemoryRegionsTest, SharedLibraryRangeOfEachProcessorType) {
  const RegionTopInfo cow = top(ShareMode::copy_on_write, 3, 2, 1, 1);
  for (const RangeRow& row : kRangeRows) {
    task.cpu_type = row.cpu_type;
    // Just before the range, its first and last pages, just behind; private pages within count both ways.
    task.regions = {{.address = row.start - kPage, .size = kPage, .top = cow},
                    {.address = row.start, .size = kPage, .top = cow},
                    {.address = row.start + kPage, .size = kPage, .top = top(ShareMode::private_pages, 1, 0)},
                    {.address = row.end - kPage, .size = kPage, .top = top(ShareMode::true_shared, 7, 2)},
                    {.address = row.end, .size = kPage, .top = cow},
                    {.address = row.end + kPage, .size = kPage, .top = top(ShareMode::empty, 0, 0)}};
    ASSERT_EQ(start(), 0);
    const SystemSample& tsamp = sample(true, true);
    EXPECT_EQ(sizesOf(kPid), (Sizes{11, 0, 3, 1, 11, 4})) << std::hex << row.cpu_type;
    EXPECT_EQ(tsamp.shlib_private_total, 11 * kPage);
    // It is where a region begins that counts.
    task.regions = {
        {.address = row.start - kPage, .size = 2 * kPage, .top = cow},
        {.address = row.end - kPage, .size = 2 * kPage, .top = top(ShareMode::true_shared, 7, 2)}};
    sample();
    EXPECT_EQ(sizesOf(kPid), (Sizes{5, 0, 2, 0, 7, 1})) << std::hex << row.cpu_type;
  }
}

TEST_F(MemoryRegionsTest, ProcessesWithASplitRangeAreWalkedAgainWhileTheyAreSmall) {
  kernel.journals_task_calls = true;
  for (const RangeRow& row : kRangeRows) {
    task.cpu_type = row.cpu_type;
    task.basic.virtual_size = 0;
    const RegionTopInfo empty = top(ShareMode::empty, 0, 0);
    task.regions = regionsFrom(row.start, {empty, empty, empty});
    task.regions[1].basic.reserved = 1;
    ASSERT_EQ(start(), 0);
    sample(false);  // new, so it is walked
    EXPECT_EQ(info(kPid).split, 1U);
    EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "mach_vm_region 10 42"), 2);
    asked();
    if (row.walk_limit > 0) {
      task.basic.virtual_size = row.walk_limit - 1;
      sample(false);
      EXPECT_EQ(asked(), 4U) << std::hex << row.cpu_type;
    }
    task.basic.virtual_size = row.walk_limit;
    sample(false);
    EXPECT_EQ(asked(), 0U) << std::hex << row.cpu_type;
    // A walk that finds it whole ends that.
    task.regions[1].basic.reserved = 0;
    task.basic.virtual_size = 0;
    sample(true);
    EXPECT_EQ(info(kPid).split, 0U);
    asked();
    sample(false);
    EXPECT_EQ(asked(), 0U);
  }
}

TEST_F(MemoryRegionsTest, UnreadableBasicInformationEndsTheWalkWithWhatItFound) {
  const RegionTopInfo own = top(ShareMode::private_pages, 1, 0);
  task.regions = regionsFrom(0x7FFF'7000'0000 - kSize, {own, top(ShareMode::empty, 2, 0), own});
  fail("mach_vm_region 10", kPid);
  sample();
  EXPECT_EQ(sizesOf(kPid), (Sizes{1, 0, 16, 0, 2, 1}));
}

TEST_F(MemoryRegionsTest, WhenRegionsAreWalked) {
  kernel.journals_task_calls = true;
  sample();
  for (const std::uint32_t mode : {kFollowSample, kDoNotForceWalk, kAlwaysWalk}) {
    for (const bool walk_regions : {true, false}) {
      info(kPid).region_mode = mode;
      asked();
      sample(walk_regions);
      EXPECT_EQ(asked(), mode == kAlwaysWalk || (mode == kFollowSample && walk_regions) ? 1U : 0U) << mode;
    }
  }
}

TEST_F(MemoryRegionsTest, NoMemoryForASharedObjectStoresNothingOfTheWalk) {
  task.regions = regionsFrom(kPage, {top(ShareMode::private_pages, 1, 0)});
  task.basic.resident_size = 5;
  sample();
  task.regions = regionsFrom(kPage, {top(ShareMode::private_pages, 8, 0), top(ShareMode::shared, 0, 4)});
  task.basic.resident_size = 6;
  struct Entry {
    void* next;
    SharedObjects::value_type object;
  };
  failNextAllocation(sizeof(Entry), sizeof(Entry) + sizeof(void*));  // whichever C++ library's
  sample();
  EXPECT_EQ(sizesOf(kPid), (Sizes{1, 0, 16, 0, 0, 1}));
  EXPECT_EQ(process(kPid).region_count_prev, 0U);
  EXPECT_EQ(process(kPid).resident, 6U);
  EXPECT_TRUE(sampler.shared_objects.empty());
}

using MemoryRegionsDeathTest = MemoryRegionsTest;

TEST_F(MemoryRegionsDeathTest, RegionsThatNoProcessMayHave) {
  ASSERT_EQ(start(), 0);
  for (const std::uint32_t mode : {0U, 5U, 6U, 7U, 9U}) {
    task.regions = regionsFrom(kPage, {top(static_cast<ShareMode>(mode), 1, 1)});
    EXPECT_DEATH(libtop_sample(true, false), "libtop_update_vm_regions: libtop:1795: .*: 0\n");
  }
  task.cpu_type = 0xABC;
  EXPECT_DEATH(libtop_sample(true, false), "^unknown CPU type: 0xabc\n$");
  task.regions.clear();
  sample();
}

}  // namespace
}  // namespace volorn
