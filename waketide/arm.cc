#include "waketide/arm.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/linux_clock.h"
#include "waketide/arm_record.h"
#include "waketide/job_row.h"
#include "waketide/schedule.h"
#include "waketide/systemd.h"
#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

// What is due is started so much later: a timer that is set into the past is accepted and never fires, and a
// start of the daemon itself would be swallowed while it runs.
constexpr double kLeadSeconds = 2.0;

constexpr auto kRetry = 5ms;
constexpr auto kPatience = 2s;
constexpr int kMostRounds = 10;

linux_host::FileDescriptor takeLock(const std::string& directory) {
  const std::string path = directory + "/arm.lock";
  if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(), directory);
  }
  linux_host::FileDescriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock) throw std::system_error(errno, std::generic_category(), path);
  while (flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), path);
  }
  return lock;
}

// True as soon as `holds` does; false when it still does not after kPatience.
template <typename Condition>
bool comesTrue(Condition holds) {
  const auto deadline = SteadyClock::now() + kPatience;
  while (!holds()) {
    if (SteadyClock::now() >= deadline) return false;
    std::this_thread::sleep_for(kRetry);
  }
  return true;
}

// Never before `date`.
std::uint64_t microsecondsSince1970(Date date) {
  return static_cast<std::uint64_t>(std::ceil(std::max(date.secondsSince1970(), 0.0) * 1e6));
}

Date dateOf(std::uint64_t microseconds) {
  return Date::fromSecondsSince1970(static_cast<double>(microseconds) / 1e6);
}

std::string utcText(std::uint64_t microseconds) {
  const auto seconds = static_cast<time_t>(microseconds / 1'000'000);
  tm utc = {};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
  const std::string fraction = std::to_string(1'000'000 + microseconds % 1'000'000).substr(1);
  return std::string(text) + (microseconds % 1'000'000 != 0 ? "." + fraction : "") + " UTC";
}

class Arming {
 public:
  Arming(const std::string& state_directory, const std::string& runtime_directory)
      : state_directory_(state_directory), record_path_(runtime_directory + "/arm.record") {}

  void run();

 private:
  struct View {
    Systemd::Run run;
    JobRow job;
  };
  View look();
  Date startAfter(const View& view);
  bool makeTimerStandAt(std::uint64_t elapse);

  std::string state_directory_;
  std::string record_path_;
  linux_host::LinuxClock clock_;
  Systemd systemd_;
};

void Arming::run() {
  View view = look();
  for (int round = 0; round < kMostRounds; ++round) {
    const std::uint64_t elapse = microsecondsSince1970(startAfter(view));
    const bool stands = makeTimerStandAt(elapse);
    // A run may have ended since that finds us still running, and is seen by nobody after us.
    const View now = look();
    const bool unchanged = now.job.row == view.job.row && now.run == view.run;
    if (stands && unchanged) {
      tell("the daemon starts next at " + utcText(elapse) + (view.job.row ? "" : ": " + view.job.trouble));
      return;
    }
    view = now;
  }
  throw std::runtime_error("the timer does not come to stand at the row");
}

// The run before the row: a row that is read after a run has ended is what this run left, or a later one.
Arming::View Arming::look() {
  const Systemd::Run run = systemd_.lastRun();
  return {run, readJobRow(state_directory_)};
}

Date Arming::startAfter(const View& view) {
  ArmRecord record = readArmRecord(record_path_);
  Schedule schedule(record.served);
  const Date now = clock_.now();
  if (view.run.ended_us != 0 && view.run.started_us != record.run_started_us) {
    record.run_started_us = view.run.started_us;
    schedule.recordRun(dateOf(view.run.started_us), dateOf(view.run.ended_us), view.job.row);
  }
  const auto next = schedule.nextStart(view.job.row, now);
  record.served = schedule.served();
  writeArmRecord(record_path_, record);
  return next.value_or(Date::fromSecondsSince1970(now.secondsSince1970() + kLeadSeconds));
}

// False when the time is over, perhaps before systemd had it, or systemd has something else.
bool Arming::makeTimerStandAt(std::uint64_t elapse) {
  systemd_.stopTimer();
  // The stopped one goes in its own time, and until then there is no place for another.
  if (!comesTrue([&] { return systemd_.startTimer(utcText(elapse)); })) {
    throw std::runtime_error("systemd has a volorn.timer already, which does not go");
  }
  bool stands = false;
  comesTrue([&] {
    stands = systemd_.timerElapse() == elapse;
    return stands || microsecondsSince1970(clock_.now()) > elapse;
  });
  return stands;
}

}  // namespace

void arm(const std::string& state_directory, const std::string& runtime_directory) {
  const linux_host::FileDescriptor lock = takeLock(runtime_directory);
  Arming(state_directory, runtime_directory).run();
}

}  // namespace volorn::waketide
