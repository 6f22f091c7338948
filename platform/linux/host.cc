#include "platform/linux/host.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <string>

#include "platform/linux/host_bindings.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_system_log.h"
#include "platform/linux/state/state_services.h"

namespace volorn::linux_host {
namespace {

// One complete platform; nothing of it outlives a damaged state file.
class Host {
 public:
  Host(StateDirectory& directory, Clock& clock, SystemLog& log, OnDamage on_damage)
      : log_(log),
        state_file_(directory, clock, log, on_damage),
        waketide_(state_file_),
        preferences_store_(state_file_),
        metric_store_(state_file_, clock, bindings_.standIns()) {}

  void run(const std::function<void()>& work) {
    const Services services = bindings_.servicesWith({.waketide = waketide_,
                                                      .preferences_store = preferences_store_,
                                                      .metric_store = metric_store_,
                                                      .system_log = log_,
                                                      .usage_books = &state_file_});
    const ScopedServices installed(services);
    work();
  }

 private:
  SystemLog& log_;
  HostBindings bindings_;
  StateFile state_file_;
  LinuxWaketide waketide_;
  LinuxPreferencesStore preferences_store_;
  LinuxMetricStore metric_store_;
};

// Whatever the caller left, the process neither ends by a signal for a full or closed file, nor gives a file
// of ours another mode, nor opens the state file where standard error should be.
void prepareProcess() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  umask(S_IWGRP | S_IWOTH);
  // One thread, nobody who asks for statistics, and a page cache no larger than it must be: a tenth of the
  // run.
  sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
  for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
    if (fd <= STDERR_FILENO) continue;
    close(fd);
    break;
  }
}

void runWithState(const std::string& state_directory, SystemLog& log, const std::function<void()>& work) {
  LinuxClock clock;
  StateDirectory directory(state_directory);
  try {
    Host(directory, clock, log, OnDamage::kThrow).run(work);
    return;
  } catch (const StateFileDamaged& damage) {
    log.log("state file %s: %s; it is set aside and the run begins again", directory.describe().c_str(),
            damage.what());
  }
  try {
    directory.setStateFileAside(clock.now());
  } catch (const std::exception& error) {
    log.log("state file: cannot set aside %s", error.what());
  }
  Host(directory, clock, log, OnDamage::kLose).run(work);
}

}  // namespace

void runOnThisMachine(const std::function<void()>& work) {
  // The last resort of a process without memory, whose end must not look like a failure.
  std::set_terminate([] { _exit(0); });
  prepareProcess();
  LinuxSystemLog log("volornd");
  try {
    runWithState(stateDirectoryOf(geteuid()), log, work);
  } catch (const std::exception& error) {
    log.log("the run ended early: %s", error.what());
  }
}

}  // namespace volorn::linux_host
