#include "waketide/serve.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/linux_clock.h"
#include "waketide/child_process.h"
#include "waketide/job_row.h"
#include "waketide/mend.h"
#include "waketide/schedule.h"
#include "waketide/signals.h"
#include "waketide/state_watch.h"
#include "waketide/supply_watch.h"
#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

// A commit makes several events; its row is read once.
constexpr auto kSettling = 100ms;

// Until the next look where no event or timer tells when.
constexpr auto kRetry = 60s;

// A mending waits for another's lock and for a reader, as a run does.
constexpr auto kMendLimit = 120s;

constexpr int kNotExecuted = 127;

// Together less than the second in which a stop is to be done.
constexpr auto kTermPatience = 300ms;
constexpr auto kKillPatience = 500ms;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Returns when that could not be done.
int becomeDaemon(const std::string& path) {
  std::string name = path;
  char* arguments[] = {name.data(), nullptr};
  execv(path.c_str(), arguments);
  tell(path + ": " + std::strerror(errno));
  return kNotExecuted;
}

// Rings at a time of the real-time clock, and at once when that clock is set.
class RealTimeTimer {
 public:
  RealTimeTimer() : fd_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (!fd_) fail("timerfd_create");
  }

  int fd() const { return fd_.get(); }

  void set(Date date) {
    const double seconds = std::floor(date.secondsSince1970());
    itimerspec time = {};
    time.it_value.tv_sec = static_cast<time_t>(seconds);
    // A nanosecond more than nothing: all zeros would disarm it.
    time.it_value.tv_nsec = static_cast<long>((date.secondsSince1970() - seconds) * 1e9) + 1;
    if (timerfd_settime(fd_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &time, nullptr) != 0) {
      fail("timerfd_settime");
    }
  }

  // Makes it wait to ring again. That it fails with ECANCELED after the clock was set is no other case: a
  // look at the clock tells what to do.
  void silence() {
    std::uint64_t times = 0;
    [[maybe_unused]] const ssize_t size = read(fd_.get(), &times, sizeof times);
  }

 private:
  linux_host::FileDescriptor fd_;
};

class Server {
 public:
  explicit Server(const ServeOptions& options) : options_(options), watch_(options.state_directory) {}

  void run();

 private:
  void look();
  void startMending(const std::string& why);
  void startDaemon(const std::string& why);
  bool start(const std::string& name, std::chrono::seconds limit, const std::function<int()>& work);
  void handleEnd(int status);
  void tellEnd(int status) const;
  void killOverdue();
  void stop();
  void stopChild();
  void startNote();
  void stopWatchingSupplies();
  void refreshWatch();
  int pollTimeoutMs() const;
  bool deadlinePassed() const { return deadline_ && SteadyClock::now() >= *deadline_; }

  const ServeOptions& options_;
  linux_host::LinuxClock clock_;
  Signals signals_;
  RealTimeTimer timer_;
  StateWatch watch_;
  bool unwatchable_ = false;
  Schedule schedule_;
  ChildProcess child_;
  SupplyWatch supplies_;
  ChildProcess note_;             // one mark after the other
  std::optional<Note> due_note_;  // after that which is under way
  std::string name_;              // of the child
  std::chrono::seconds limit_ = {};
  std::optional<std::string> mending_for_;  // why the daemon is started after the child, which mends
  std::optional<Date> started_;             // by the start of which the schedule does not know yet
  // While a child runs: when to kill it. Else: when to look, timer or not.
  std::optional<SteadyClock::time_point> deadline_;
  bool settling_ = false;
};

void Server::run() {
  due_note_ = supplies_.take();
  startNote();
  look();
  for (;;) {
    // Left out of the set, the watch may fill up without waking us.
    const bool watching = !child_.runs() && !settling_;
    pollfd waited[] = {{signals_.fd(), POLLIN, 0},
                       {timer_.fd(), POLLIN, 0},
                       {watching ? watch_.fd() : -1, POLLIN, 0},
                       {supplies_.fd(), POLLIN, 0}};
    if (poll(waited, std::size(waited), pollTimeoutMs()) < 0 && errno != EINTR) fail("poll");

    if (signals_.takeStop()) return stop();
    if (const auto due = supplies_.take()) {
      due_note_ = Note{.some_lost = due->some_lost || (due_note_ && due_note_->some_lost)};
    }
    startNote();
    const bool rang = waited[1].revents != 0;
    if (rang) timer_.silence();

    if (child_.runs()) {
      if (const auto status = child_.takeEnd()) {
        handleEnd(*status);
      } else if (deadlinePassed()) {
        killOverdue();
      }
    } else if (rang || deadlinePassed()) {
      look();
    } else if (waited[2].revents != 0 && watch_.take()) {
      settling_ = true;
      deadline_ = SteadyClock::now() + kSettling;
    }
  }
}

// Only while no child runs.
void Server::look() {
  settling_ = false;
  deadline_.reset();
  // In this order a change is in what is read, or noticed after it. What the daemon's own run did is taken
  // here, too.
  watch_.take();
  refreshWatch();
  const JobRow job = [this] {
    const Signals::EndAtOnce while_reading;
    return readJobRow(options_.state_directory);
  }();
  const Date now = clock_.now();
  if (started_) schedule_.recordRun(*std::exchange(started_, std::nullopt), now, job.row);
  if (const auto date = schedule_.sleepUntil(job.row, now)) {
    timer_.set(*date);
  } else {
    startMending(job.row ? "its window is open or too far ahead" : job.trouble);
  }
}

void Server::startMending(const std::string& why) {
  const auto work = [this] {
    mend(options_.state_directory);
    return EXIT_SUCCESS;
  };
  if (start("waketide mend", kMendLimit, work)) mending_for_ = why;
}

void Server::startDaemon(const std::string& why) {
  const Date now = clock_.now();
  const auto work = [this] { return becomeDaemon(options_.daemon_path); };
  if (!start(options_.daemon_path, options_.run_limit, work)) return;
  started_ = now;
  tell("started " + options_.daemon_path + ": " + why);
}

bool Server::start(const std::string& name, std::chrono::seconds limit, const std::function<int()>& work) {
  const bool started = child_.start(work, signals_);
  if (!started) tell(name + ": no process for it: " + std::strerror(errno));
  name_ = name;
  limit_ = limit;
  deadline_ = SteadyClock::now() + (started ? limit : kRetry);
  return started;
}

void Server::handleEnd(int status) {
  tellEnd(status);
  if (const auto why = std::exchange(mending_for_, std::nullopt)) return startDaemon(*why);
  look();
}

void Server::tellEnd(int status) const {
  if (WIFSIGNALED(status)) {
    tell(name_ + " was ended by " + signalName(WTERMSIG(status)));
  } else if (WEXITSTATUS(status) != 0) {
    tell(name_ + " ended with status " + std::to_string(WEXITSTATUS(status)));
  }
}

void Server::killOverdue() {
  tell(name_ + " did not end within " + std::to_string(limit_.count()) + " s; killing it");
  child_.send(SIGKILL);
  deadline_.reset();  // one that hangs in the kernel is waited for
}

// Beside the daemon's own process: who waits for its end would see the plug too late.
void Server::startNote() {
  note_.takeEnd();
  if (!due_note_ || note_.runs()) return;
  const auto work = [this] {
    try {
      note(options_.state_directory, *due_note_);
      return EXIT_SUCCESS;
    } catch (const std::exception& error) {
      tell(error.what());
      return EXIT_FAILURE;
    }
  };
  if (note_.start(work, signals_)) due_note_.reset();
}

void Server::stopWatchingSupplies() {
  if (!supplies_.hasBattery()) return;
  if (note_.runs() && !note_.endsWithin(kTermPatience)) return;
  due_note_ = Note{.is_last = true, .some_lost = due_note_ && due_note_->some_lost};
  startNote();
  note_.endsWithin(kTermPatience);
}

void Server::stop() {
  stopChild();
  stopWatchingSupplies();
}

void Server::stopChild() {
  if (!child_.runs()) return;
  child_.send(SIGTERM);
  if (child_.endsWithin(kTermPatience)) return;
  child_.send(SIGKILL);
  if (!child_.endsWithin(kKillPatience)) tell(name_ + " hangs in the kernel and is left behind");
}

void Server::refreshWatch() {
  const int error = watch_.refresh();
  if (error != 0) {
    if (!unwatchable_) {
      tell(options_.state_directory + " cannot be watched (" + std::strerror(error) +
           "); looking each minute");
    }
    deadline_ = SteadyClock::now() + kRetry;
  }
  unwatchable_ = error != 0;
}

int Server::pollTimeoutMs() const {
  if (!deadline_) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - SteadyClock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

}  // namespace

void serve(const ServeOptions& options) {
  Server(options).run();
}

}  // namespace volorn::waketide
