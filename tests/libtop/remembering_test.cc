// A sampler that serves what has not changed from memory, beside one that reads all, over processes that act
// when they are told to and rest between. They rest of themselves: the freezer of control groups would wake
// most of them first, and of a process that has run nothing is served. VOLORN_ROUNDS says how many; 500 take
// minutes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "platform/linux/page_size.h"
#include "tests/libtop/real_sampler.h"
#include "tests/temporary_folder.h"

namespace volorn {
namespace {

const std::size_t kPage = linux_host::pageSizeBytes();
constexpr std::size_t kArenaPages = 64;

char* arena = nullptr;  // pages that all have from the test, and that the crowd alone writes

// What others can change by mapping the same pages comes last.
struct Figures {
  std::array<std::uint64_t, 36> own;
  std::array<std::uint64_t, 4>
      shared;  // without what is resident and shared: pages of files that come and go
  bool operator==(const Figures&) const = default;
};

std::uint64_t microseconds(const TimeStamp& time) {
  return static_cast<std::uint64_t>(time.seconds * 1'000'000 + time.microseconds);
}

Figures figuresOf(const ProcessSample& p) {
  Figures figures = {.own = {p.pid, p.uid, p.ppid, p.pgid, p.resident, p.virtual_size, p.empty_virtual,
                             p.footprint, p.threads, p.running_threads, p.ports, microseconds(p.total_time),
                             microseconds(p.started), p.cpu_type, std::hash<std::string>()(p.command),
                             p.state == kProcessIdle ? kProcessSleeping : p.state},
                     .shared = {p.private_resident, p.private_virtual, p.shlib_private, p.region_count}};
  std::size_t at = 16;
  for (const std::int32_t event : p.events) figures.own[at++] = static_cast<std::uint32_t>(event);
  for (const std::uint64_t bytes : p.kernel_memory) figures.own[at++] = bytes;
  for (const std::uint64_t power : p.power) figures.own[at++] = power;
  return figures;
}

// From then on the test and the samplers, which run while others rest, share no page with this process but
// what they only read.
void takeOwnPages() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t at = 0;
    std::uintptr_t end = 0;
    char kind[5] = {};
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &at, &end, kind) != 3 || kind != std::string_view("rw-p"))
      continue;
    if (at == reinterpret_cast<std::uintptr_t>(arena)) continue;
    for (; at < end; at += kPage) {
      auto* const byte = reinterpret_cast<volatile char*>(at);
      *byte = *byte;
    }
  }
}

// A process that does what a byte tells it to, answers with a byte and rests.
class Servant {
 public:
  template <typename Serve>
  explicit Servant(Serve serve) {
    int to[2];
    int from[2];
    if (pipe(to) != 0 || pipe(from) != 0) abort();
    outside_pid_ = fork();
    if (outside_pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(to[0], 0);
      dup2(from[1], 1);
      for (int fd = 3; fd < 1024; ++fd) close(fd);
      takeOwnPages();
      const pid_t own = getpid();
      if (write(1, &own, sizeof own) != sizeof own) _exit(1);
      for (char order = 0; read(0, &order, 1) == 1;) serve(order);
      _exit(0);
    }
    close(to[0]);
    close(from[1]);
    orders_ = linux_host::FileDescriptor(to[1]);
    answers_ = linux_host::FileDescriptor(from[0]);
    pid_ = answer<pid_t>();
  }
  ~Servant() {
    kill(outside_pid_, SIGKILL);
    waitpid(outside_pid_, nullptr, 0);
  }
  Servant(const Servant&) = delete;
  Servant& operator=(const Servant&) = delete;

  pid_t pid() const { return pid_; }  // as it sees itself
  pid_t outsidePid() const { return outside_pid_; }
  void tell(char order) { EXPECT_EQ(write(orders_.get(), &order, 1), 1); }
  template <typename Answer>
  Answer answer() {
    Answer answer = {};
    char* at = reinterpret_cast<char*>(&answer);
    for (std::size_t got = 0; got < sizeof answer;) {
      const ssize_t count = read(answers_.get(), at + got, sizeof answer - got);
      if (count <= 0) throw std::runtime_error("a process has ended");
      got += static_cast<std::size_t>(count);
    }
    return answer;
  }

 private:
  pid_t outside_pid_ = 0;
  pid_t pid_ = 0;
  linux_host::FileDescriptor orders_;
  linux_host::FileDescriptor answers_;
};

// What an actor does when it is told.
void act(char order) {
  static std::vector<std::pair<char*, std::size_t>> maps;
  static std::list<std::thread> threads;
  static std::mutex mutex;
  static std::condition_variable begun;
  static std::condition_variable ended;
  static std::size_t wanted = 0;
  static std::vector<pid_t> children;
  static std::minstd_rand random(static_cast<unsigned>(getpid()));
  const std::size_t number = random() % kArenaPages;
  switch (order) {
    case 'm':
    case 's': {
      const std::size_t bytes = (number + 3) * kPage;
      const int kind = order == 's' ? MAP_SHARED : MAP_PRIVATE;
      maps.emplace_back(
          static_cast<char*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, kind | MAP_ANONYMOUS, -1, 0)),
          bytes);
      for (std::size_t page = 0; page < number; page += 2) maps.back().first[page * kPage] = 1;
      break;
    }
    case 'u':
      if (maps.empty()) break;
      munmap(maps.back().first, maps.back().second);
      maps.pop_back();
      break;
    case 'p':  // neither faults nor sizes tell of it
      if (!maps.empty()) mprotect(maps.back().first + kPage, kPage, PROT_READ);
      break;
    case 'r':  // nor of this
      if (!maps.empty()) madvise(maps.back().first, kPage, MADV_DONTNEED), maps.back().first[kPage * 2] = 2;
      break;
    case 'w':
      arena[number * kPage] = order;
      break;
    case 'f':
      children.push_back(fork());
      if (children.back() != 0) break;
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    case 'k':
      if (children.empty()) break;
      kill(children.back(), SIGKILL);
      waitpid(children.back(), nullptr, 0);
      children.pop_back();
      break;
    case 't':
    case 'j': {
      const std::unique_lock lock(mutex);
      wanted = order == 't' ? threads.size() + 1 : wanted - std::min<std::size_t>(wanted, 1);
      break;
    }
    case 'x':  // gives back what it is told, as its answer
      execl("/bin/cat", "cat", nullptr);
      break;
    default:
      break;
  }
  while (threads.size() < wanted) {
    static std::size_t waiting = 0;
    std::unique_lock lock(mutex);
    threads.emplace_back([number = threads.size()] {
      std::unique_lock own(mutex);
      ++waiting;
      begun.notify_all();
      ended.wait(own, [&] { return wanted <= number; });
      --waiting;
    });
    begun.wait(lock, [] { return waiting == threads.size(); });
  }
  while (threads.size() > wanted) {
    ended.notify_all();
    threads.back().join();
    threads.pop_back();
  }
  static_cast<void>(!write(1, &order, 1));
}

// Answers with the figures of a sample of all processes, to an 'r' with those of a start.
void serveSamples(const std::string& proc_root, bool remembers, char order) {
  static RealSampler real(linux_host::RegionSource::best, proc_root, remembers);
  if (order == 'r') libtop_init(nullptr, nullptr);
  real.sample(true);
  std::vector<Figures> all;
  while (const ProcessInfo* pinfo = libtop_piterate()) all.push_back(figuresOf(pinfo->psamp));
  const std::size_t count = all.size();
  static_cast<void>(!write(1, &count, sizeof count));
  for (const Figures& figures : all) static_cast<void>(!write(1, &figures, sizeof figures));
}

using Sampled = std::map<std::uint64_t, Figures>;  // by pid

// In which no other processes are to be seen, where that is allowed: whoever runs beside costs time alone.
class Namespace {
 public:
  Namespace() {
    constexpr int kOwn = CLONE_NEWPID | CLONE_NEWNS;
    if (unshare(kOwn) != 0 && unshare(kOwn | CLONE_NEWUSER) != 0) return;
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    first_ = std::make_unique<Servant>([this](char) {
      const bool is_mounted = mount("proc", folder_.path().c_str(), "proc", 0, nullptr) == 0;
      static_cast<void>(!write(1, &is_mounted, 1));
    });
    first_->tell('m');
    if (first_->answer<bool>()) proc_root = folder_.path();
  }
  ~Namespace() { umount2(folder_.path().c_str(), MNT_DETACH); }
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;

  std::string proc_root = "/proc";

 private:
  TemporaryFolder folder_;
  std::unique_ptr<Servant> first_;  // with it the others end
};

class RememberingTest : public testing::Test {
 protected:
  RememberingTest() {
    static Namespace alone;
    proc_root_ = alone.proc_root;
    arena = static_cast<char*>(
        mmap(nullptr, kArenaPages * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (std::size_t page = 0; page < kArenaPages; ++page) arena[page * kPage] = 1;
    remembering_ = std::make_unique<Servant>([this](char order) { serveSamples(proc_root_, true, order); });
    reading_ = std::make_unique<Servant>([this](char order) { serveSamples(proc_root_, false, order); });
  }

  Sampled sample(Servant& sampler, char order) {
    sampler.tell(order);
    Sampled sampled;
    for (std::size_t left = sampler.answer<std::size_t>(); left > 0; --left) {
      const auto figures = sampler.answer<Figures>();
      sampled[figures.own[0]] = figures;
    }
    return sampled;
  }

  // Until the process and its children wait, all their threads.
  void waitForRest(const std::string& pid) {
    for (const auto& thread : std::filesystem::directory_iterator(proc_root_ + "/" + pid + "/task")) {
      std::string text;
      do {
        std::getline(std::ifstream(thread.path() / "stat"), text, '\0');
      } while (text.find(") S ") == text.npos && !text.empty());
      std::string child;
      for (std::ifstream children(thread.path() / "children"); children >> child;) waitForRest(child);
    }
  }

  std::string proc_root_;
  std::unique_ptr<Servant> remembering_;
  std::unique_ptr<Servant> reading_;
};

TEST_F(RememberingTest, ShowsWhatASamplerShowsThatReadsAll) {
  constexpr std::string_view kOrders = "mmssuupprrwwwffkkttjjx";
  ASSERT_NE(proc_root_, "/proc") << "no namespace, where others would be compared, who act meanwhile";
  const char* const wanted = std::getenv("VOLORN_ROUNDS");
  const int rounds = wanted ? std::atoi(wanted) : 60;
  std::minstd_rand random(7);
  std::list<Servant> crowd;
  for (int i = 0; i < 20; ++i) crowd.emplace_back(act);
  for (int round = 1; round <= rounds && !HasFailure(); ++round) {
    std::map<std::uint64_t, char> acted;
    for (auto actor = crowd.begin(); actor != crowd.end(); ++actor) {
      if (random() % 4 != 0) continue;
      if (random() % 30 == 0) {
        actor = crowd.erase(actor);
        actor = crowd.emplace(actor, act);
      }
      const char order = kOrders[random() % kOrders.size()];
      actor->tell(order);
      // A program that is new does not answer; one that is not new does.
      const char last = order == 'x' ? 'a' : order;
      if (last != order) actor->tell(last);
      while (actor->answer<char>() != last) continue;
      acted[static_cast<std::uint64_t>(actor->pid())] = order;
    }
    for (const Servant& actor : crowd) waitForRest(std::to_string(actor.pid()));
    // Before and after, for the samplers run on, and have a few pages of files with the crowd. What others
    // did to the pages of those who rested follows once in a hundred samples.
    Sampled before = sample(*reading_, 'r');
    const bool is_to_settle = round % 20 == 0;
    for (int i = 1; i < 100 && is_to_settle; ++i) sample(*remembering_, 's');
    Sampled remembered = sample(*remembering_, 'r');
    const Sampled read = sample(*reading_, 'r');
    for (const auto& [pid, figures] : read) {
      const bool is_sampler =
          static_cast<pid_t>(pid) == remembering_->pid() || static_cast<pid_t>(pid) == reading_->pid();
      if (is_sampler) continue;
      EXPECT_EQ(remembered[pid].own, figures.own) << pid << " in round " << round << ", told " << acted[pid];
      // The pages of a new program are those of files that come and go with the samplers, too.
      if (acted[pid] != 'x' && (acted[pid] || is_to_settle) && before[pid].shared == figures.shared) {
        EXPECT_EQ(remembered[pid].shared, figures.shared)
            << pid << " in round " << round << ", told " << acted[pid];
      }
    }
  }
}

// What is done to a process that rests.
TEST_F(RememberingTest, SeesWhatOthersDoToAProcess) {
  const linux_host::FileDescriptor file(memfd_create("shared", 0));
  ASSERT_EQ(ftruncate(file.get(), static_cast<off_t>(kArenaPages * kPage)), 0);
  char* const of_file = static_cast<char*>(
      mmap(nullptr, kArenaPages * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
  char* const untouched = static_cast<char*>(
      mmap(nullptr, kArenaPages * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  Servant victim([&](char order) {
    for (std::size_t page = 0; page < kArenaPages; ++page) of_file[page * kPage] = order;
    static_cast<void>(!write(1, &order, 1));
  });
  victim.tell('a');
  EXPECT_EQ(victim.answer<char>(), 'a');
  const std::string pid = std::to_string(victim.pid());
  waitForRest(pid);
  const auto write_into = [&](char* place) {
    char byte = 1;
    const iovec from = {.iov_base = &byte, .iov_len = 1};
    const iovec to = {.iov_base = place, .iov_len = 1};
    return process_vm_writev(victim.outsidePid(), &from, 1, &to, 1, 0) == 1;
  };
  struct Deed {
    const char* name;
    std::function<bool()> work;
    int most_samples;
  };
  takeOwnPages();
  const Deed deeds[] = {
      {"a page is written for it", [&] { return write_into(untouched); }, 10},
      {"its copy of a page is made for it", [&] { return write_into(arena); }, 100},
      {"its file is cut", [&] { return ftruncate(file.get(), static_cast<off_t>(kPage)) == 0; }, 10},
  };
  for (const Deed& deed : deeds) {
    sample(*remembering_, 'r');
    sample(*remembering_, 's');
    ASSERT_TRUE(deed.work()) << deed.name << ": " << std::strerror(errno);
    const auto number = static_cast<std::uint64_t>(victim.pid());
    const Figures read = sample(*reading_, 'r')[number];
    bool is_seen = false;
    for (int i = 0; i < deed.most_samples && !is_seen; ++i)
      is_seen = sample(*remembering_, 'r')[number] == read;
    EXPECT_TRUE(is_seen) << deed.name;
  }
}

}  // namespace
}  // namespace volorn
