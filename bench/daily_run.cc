// What one whole daily run costs as a process, durable commit included, in pairs with two floors: a bare
// program that commits the same rows, and one that writes, syncs and renames 2 KB. Prints medians and ratios.
//
// Usage: daily_run [FOLDER [PAIRS]]. FOLDER names the disk to measure, by default /var/tmp. Needs the right
// to make a mount namespace, in which a new folder there stands in for the system's state.
#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/linux/state/database.h"

namespace {

namespace fs = std::filesystem;
using namespace volorn::bench;
using volorn::linux_host::Database;

constexpr const char* kStateFolder = "/var/lib/volorn";

// The most memory that one run held, as its own status tells right before it exits: what wait4 reports is at
// least what this process held when it forked.
double peakMib(const std::vector<std::string>& command) {
  const std::vector<char*> arguments = argumentsOf(command);
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT);
  ptrace(PTRACE_CONT, child, nullptr, nullptr);
  waitpid(child, &status, 0);
  std::ifstream lines("/proc/" + std::to_string(child) + "/status");
  double peak_kib = 0;
  for (std::string word; lines >> word;) {
    if (word == "VmHWM:") lines >> peak_kib;
  }
  ptrace(PTRACE_CONT, child, nullptr, nullptr);
  waitpid(child, &status, 0);
  return peak_kib / 1024.0;
}

// The day's snapshot becomes yesterday's, so that the next run takes one.
void turnBackTheDay() {
  Database database(std::string(kStateFolder) + "/volorn.db", Database::Access::kReadWrite, 0);
  database.execute("PRAGMA journal_mode = PERSIST");  // leaves the journal to the next run, as a run would
  database.execute("UPDATE preference SET value = value - 1 WHERE key = 'lastLogDumpedDaySince1970'");
  database.execute("UPDATE preference SET value = value - 86400.0 * 2 WHERE key = 'nextPlannedWakeupTime'");
}

// A mount namespace in which the state folder lies on the disk to measure, and log lines go nowhere.
void standIn(const fs::path& folder) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    throw std::runtime_error("needs the right to make a mount namespace");
  }
  if (mount("none", "/mnt", "tmpfs", 0, nullptr) != 0 ||
      mount(folder.c_str(), "/mnt", nullptr, MS_BIND, nullptr) != 0) {
    throw std::runtime_error("cannot mount");
  }
  if (mount("none", "/var/lib", "tmpfs", 0, nullptr) != 0) throw std::runtime_error("cannot mount");
  fs::create_directory(kStateFolder);
  if (mount("/mnt", kStateFolder, nullptr, MS_BIND, nullptr) != 0) throw std::runtime_error("cannot mount");
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, STDERR_FILENO);
}

void compare(const fs::path& folder, int pairs) {
  const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
  standIn(folder);
  const std::vector<std::string> run = {here.parent_path() / "volornd"};
  const std::vector<std::string> sqlite_floor = {here / "sqlite_floor",
                                                 std::string(kStateFolder) + "/volorn.db"};
  const std::vector<std::string> rename_floor = {here / "rename_floor", kStateFolder};
  measure(run);
  Costs run_costs;
  Costs sqlite_costs;
  Costs rename_costs;
  for (int i = 0; i < pairs; ++i) {
    turnBackTheDay();
    run_costs.runs.push_back(measure(run));
    sqlite_costs.runs.push_back(measure(sqlite_floor));
    rename_costs.runs.push_back(measure(rename_floor));
  }
  Database state(std::string(kStateFolder) + "/volorn.db", Database::Access::kReadOnly, 0);
  if (state.integer("SELECT count(*) FROM snapshot") != 2 * pairs + 1) {
    throw std::runtime_error("a run took no snapshot");
  }
  turnBackTheDay();
  report("whole run", run_costs);
  report("sqlite floor", sqlite_costs);
  report("rename floor", rename_costs);
  std::printf("%-16s whole run %.1f MiB   sqlite floor %.1f MiB   rename floor %.1f MiB\n", "peak memory",
              peakMib(run), peakMib(sqlite_floor), peakMib(rename_floor));
  reportRatio("run / sqlite floor", run_costs, sqlite_costs);
  reportRatio("run / rename floor", run_costs, rename_costs);
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder = std::string(argc > 1 ? argv[1] : "/var/tmp") + "/volorn-bench-XXXXXX";
  if (!mkdtemp(folder.data())) {
    std::perror(folder.c_str());
    return 1;
  }
  int status = 0;
  try {
    compare(folder, argc > 2 ? std::atoi(argv[2]) : 101);
  } catch (const std::exception& error) {
    std::printf("daily_run: %s\n", error.what());
    status = 1;
  }
  fs::remove_all(folder);
  return status;
}
