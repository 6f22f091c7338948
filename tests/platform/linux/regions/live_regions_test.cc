#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "platform/linux/file_descriptor.h"
#include "tests/platform/linux/fixture_tree.h"
#include "tests/platform/linux/regions/region_text.h"

namespace volorn::linux_host {
namespace {

namespace fs = std::filesystem;

const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

// A stretch of unused addresses, the same in this process and in a helper. It lies among pages without
// access, so that no mapping made in it is joined with others.
class Area {
 public:
  Area() {
    whole_ = static_cast<char*>(mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    start_ = whole_ + kHugePage - reinterpret_cast<std::uintptr_t>(whole_) % kHugePage;
    for (const int fd : {memory_.get(), fileno(file_.get())}) {
      if (ftruncate(fd, static_cast<off_t>(8 * kPage)) != 0) std::perror("ftruncate");
    }
  }
  ~Area() { munmap(whole_, kBytes); }
  Area(const Area&) = delete;
  Area& operator=(const Area&) = delete;

  std::uint64_t address() const { return reinterpret_cast<std::uintptr_t>(start_); }

  // Takes steps like "a8 w1@7": a verb, a number of pages, and the first of them. False where the machine
  // cannot.
  bool take(const std::string& steps) const {
    std::istringstream text(steps);
    for (std::string step; text >> step;) {
      const std::size_t at = step.find('@');
      if (!take(step[0], std::stoul(step.substr(1)), at == step.npos ? 0 : std::stoul(step.substr(at + 1)))) {
        return false;
      }
    }
    return true;
  }

 private:
  bool take(char verb, std::size_t pages, std::size_t at) const {
    char* const first = start_ + at * kPage;
    const auto map = [&](int flags, int fd = -1) {
      return mmap(first, pages * kPage, PROT_READ | PROT_WRITE, flags | MAP_FIXED, fd, 0) == first;
    };
    const auto advise = [&](int advice) { return madvise(first, pages * kPage, advice) == 0; };
    const auto touch = [&](bool writes) {
      for (volatile char* byte = first; byte != first + pages * kPage; byte += kPage) {
        const char value = *byte;
        if (writes) *byte = value;
      }
      return true;
    };
    constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS;
    if (verb == 'r') return touch(false);
    if (verb == 'w') return touch(true);
    if (verb == 'a') return map(kAnonymous);
    if (verb == 's') return map(MAP_SHARED | MAP_ANONYMOUS);
    if (verb == 'm') return map(MAP_SHARED, memory_.get());
    if (verb == 'f') return map(MAP_SHARED, fileno(file_.get()));
    if (verb == 'p') return map(MAP_PRIVATE, fileno(file_.get()));
    if (verb == 'z') return map(MAP_PRIVATE, FileDescriptor(open("/dev/zero", O_RDWR | O_CLOEXEC)).get());
    if (verb == 'H') return advise(MADV_HUGEPAGE);
    if (verb == 'N') return advise(MADV_NOHUGEPAGE);
    if (verb == 'd') return advise(MADV_DONTNEED);
    if (verb == 'g') return advise(102);  // MADV_GUARD_INSTALL, Linux 6.13
    // 'h': where there is no huge page to be had one can be mapped, though not touched.
    constexpr int kHuge = kAnonymous | MAP_HUGETLB;
    return verb == 'h' && ((map(kHuge) && touch(true)) || map(kHuge | MAP_NORESERVE));
  }

  static constexpr std::size_t kHugePage = std::size_t{1} << 21;
  static constexpr std::size_t kBytes = 12 * kHugePage;

  char* whole_;
  char* start_;
  FileDescriptor memory_{memfd_create("volorn-test", MFD_CLOEXEC)};
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_{std::tmpfile(),
                                                        std::fclose};  // it has no name any more
};

// A relative of this process that sets its memory up and then rests until this object is gone.
class Helper {
 public:
  explicit Helper(const std::function<bool()>& set_up) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return;
    pid_ = fork();
    char byte = 0;
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      byte = set_up() ? 1 : 0;
      if (write(ready[1], &byte, 1) == 1) pause();
      _exit(0);
    }
    close(ready[1]);
    const FileDescriptor answer(ready[0]);
    is_set_up_ = read(answer.get(), &byte, 1) == 1 && byte == 1;
  }
  ~Helper() { end(); }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, 0), nullptr, 0);
  }
  bool isSetUp() const { return is_set_up_; }
  std::string pid() const { return std::to_string(pid_); }

 private:
  pid_t pid_ = 0;
  bool is_set_up_ = false;
};

FileDescriptor openFolder(const std::string& path) {
  return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

constexpr std::uint32_t kX86_64 = 0x1000007;

bool hasMappingQuery() {
  utsname kernel = {};
  uname(&kernel);
  int version = 0, patch = 0;
  return std::sscanf(kernel.release, "%d.%d", &version, &patch) == 2 &&
         (version > 6 || (version == 6 && patch >= 11));
}

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
    const std::string process = "/proc/" + helper.pid();
    // Without the text, which would take the page map's place in silence.
    const FixtureTree fast;
    for (const char* file : {"/maps", "/pagemap"}) fs::create_symlink(process + file, fast.root() + file);
    const FileDescriptor folders[] = {openFolder(hasMappingQuery() ? fast.root() : process),
                                      openFolder(process)};
    std::vector<ProcessRegion> regions;
    std::string texts[2];
    // Between two looks this process may write to what is its relative's, too.
    for (int attempt = 0; attempt < 20 && (attempt == 0 || texts[0] != texts[1]); ++attempt) {
      for (const int i : {0, 1}) {
        readers[i].read(folders[i].get(), ownerWith(kX86_64), RegionWalk::of_task, regions);
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
