#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {

inline const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

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
    int rest[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(rest, O_CLOEXEC) != 0) return;
    pid_ = fork();
    char byte = 0;
    if (pid_ == 0) {
      close(rest[1]);
      byte = set_up() ? 1 : 0;
      if (write(ready[1], &byte, 1) == 1) static_cast<void>(!read(rest[0], &byte, 1));
      _exit(0);
    }
    close(ready[1]);
    close(rest[0]);
    rest_ = FileDescriptor(rest[1]);
    const FileDescriptor answer(ready[0]);
    is_set_up_ = read(answer.get(), &byte, 1) == 1 && byte == 1;
  }
  ~Helper() { end(); }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  void end() {
    rest_ = FileDescriptor();
    if (pid_ > 0) waitpid(std::exchange(pid_, 0), nullptr, 0);
  }
  bool isSetUp() const { return is_set_up_; }
  std::string pid() const { return std::to_string(pid_); }

 private:
  pid_t pid_ = 0;
  FileDescriptor rest_;
  bool is_set_up_ = false;
};

}  // namespace volorn::linux_host
