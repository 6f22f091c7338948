#include "volornctl/recorded/record.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <limits>
#include <system_error>

#include "platform/linux/file_descriptor.h"
#include "volornctl/live/live_sampler.h"
#include "volornctl/live/process_list.h"
#include "volornctl/live/top_json.h"
#include "volornctl/number_option.h"
#include "volornctl/recorded/record_path.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

using Clock = std::chrono::steady_clock;

// "64M". None for what is no size, or no file could have.
std::optional<std::int64_t> sizeOf(std::string text) {
  int shift = 0;
  const std::size_t unit = text.empty() ? std::string::npos : std::string("KMG").find(text.back());
  if (unit != std::string::npos) {
    shift = 10 * static_cast<int>(unit + 1);
    text.pop_back();
  }
  const std::optional<std::int64_t> number = numberOf<std::int64_t>(text);
  if (!number || *number < 0 || *number > std::numeric_limits<std::int64_t>::max() >> (shift + 10)) {
    return std::nullopt;
  }
  return *number << shift;
}

double secondsOf(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// From when it is made, signals that ask the process to end wait to be asked for, also while that ends and
// writes what it holds. One that it was started to ignore stays ignored.
class EndSignals {
 public:
  EndSignals() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int end : {SIGTERM, SIGINT, SIGHUP}) {
      struct sigaction before = {};
      if (sigaction(end, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) sigaddset(&ends, end);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    waiting_ = linux_host::FileDescriptor(signalfd(-1, &ends, SFD_CLOEXEC));
    if (!waiting_) throw std::system_error(errno, std::generic_category(), "signalfd");
  }

  // Whether one came before that moment.
  bool waitUntil(Clock::time_point moment) const {
    using std::chrono::milliseconds;
    pollfd signal = {.fd = waiting_.get(), .events = POLLIN, .revents = 0};
    while (true) {
      const auto left = std::max(std::chrono::ceil<milliseconds>(moment - Clock::now()), milliseconds(0));
      const auto timeout = std::min(left, milliseconds(std::numeric_limits<int>::max()));
      if (poll(&signal, 1, static_cast<int>(timeout.count())) > 0) return true;
      if (Clock::now() >= moment) return false;
    }
  }

 private:
  linux_host::FileDescriptor waiting_;
};

}  // namespace

CLI::App* RecordCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("record", "Keep what top sees, for top --replay");
  command
      ->add_option("-d,--interval", interval_seconds_, "Seconds from one sample to the next, 5 unless told")
      ->type_name("S")
      ->check(checkInterval);
  const auto take = [this](const std::string& text) {
    const std::optional<std::int64_t> size = sizeOf(text);
    if (!size || *size < kLeastKeptBytes)
      throw CLI::ValidationError("--keep", "not a size from 1M on: " + text);
    keep_bytes_ = *size;
  };
  command
      ->add_option_function<std::string>("--keep", take,
                                         "The newest so much, as in 500M or 2G; 64M unless told")
      ->type_name("SIZE");
  command->add_option("-n,--count", count_, "End after so many samples")->type_name("N")->check(checkCount);
  command->add_option("--output", path_, "The file, if not the usual one")->type_name("FILE");
  return command;
}

void RecordCommand::run(const Surroundings& surroundings) {
  const auto tell = [&](const std::string& text) {
    try {
      surroundings.errors.write("volornctl: " + escaped(text) + "\n");
    } catch (const std::runtime_error&) {
      // Nobody is left to be told.
    }
  };
  const EndSignals end_signals;
  RecordFile file(path_.empty() ? recordToWrite() : path_, keep_bytes_, tell);
  Recorder recorder(file, interval_seconds_, tell);
  LiveSampler sampler;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
  Clock::time_point next = Clock::now();
  for (std::int64_t taken = 0; taken != count_; ++taken) {
    if (end_signals.waitUntil(next)) break;
    next = Clock::now() + interval;
    const Sample sample = sampler.take();
    const double asleep_seconds = secondsOf(CLOCK_BOOTTIME) - secondsOf(CLOCK_MONOTONIC);
    recorder.take(sample, topJson(sample, listProcesses(sample, {.order = Column::kPid}, {})),
                  asleep_seconds);
  }
  is_whole_ = recorder.finish();
}

}  // namespace volorn::ctl
