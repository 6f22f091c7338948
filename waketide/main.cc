#include <limits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/linux/state/state_directory.h"
#ifdef VOLORN_WAKETIDE_ARM
#include "waketide/arm.h"
#endif
#include "waketide/mend.h"
#include "waketide/note.h"
#include "waketide/serve.h"
#include "waketide/supply_watch.h"
#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

enum ExitStatus { kDone = 0, kCouldNot = 1, kUsage = 2 };

// Above what a run may wait for: 45 s for the lock and 10 s for a reader.
constexpr int kRunLimitSeconds = 120;

struct Arguments {
  std::string state_directory;
  std::string daemon_path;
  int run_limit_seconds = kRunLimitSeconds;
  Note note;
  bool settles = false;
};

// Ends in a slash. Not by std::filesystem: the C++ library of 32-bit systems knows no times from 2038 on.
std::string ownFolder() {
  std::array<char, PATH_MAX> path = {};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length < 0) throw std::system_error(errno, std::generic_category(), "/proc/self/exe");
  const std::string_view text(path.data(), static_cast<std::size_t>(length));
  return std::string(text.substr(0, text.rfind('/') + 1));
}

std::string stateDirectoryOf(const Arguments& given) {
  std::string directory = given.state_directory;
  if (directory.empty()) directory = linux_host::stateDirectoryOf(geteuid());
  if (directory.empty()) throw std::runtime_error("this user has no home folder");
  return directory;
}

ServeOptions serveOptionsOf(const Arguments& given) {
  ServeOptions options{stateDirectoryOf(given), given.daemon_path,
                       std::chrono::seconds(given.run_limit_seconds)};
  if (options.daemon_path.empty()) {
    options.daemon_path = ownFolder() + "volornd";
  }
  return options;
}

void addStateDirectory(CLI::App& command, Arguments& given) {
  command
      .add_option("--state-dir", given.state_directory, "Folder of the state file, if not the daemon's own")
      ->check([](const std::string& folder) { return folder.empty() ? "the folder's name is empty" : ""; });
}

void addServe(CLI::App& app, Arguments& given) {
  CLI::App* command = app.add_subcommand("serve", "Stay in the foreground and start it, until SIGTERM");
  addStateDirectory(*command, given);
  command->add_option("--daemon", given.daemon_path, "Program to start, if not the volornd beside this one");
  command->add_option("--run-limit", given.run_limit_seconds, "Seconds after which a run is killed")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  command->final_callback([&given] { serve(serveOptionsOf(given)); });
}

void addMend(CLI::App& app, Arguments& given) {
  CLI::App* command =
      app.add_subcommand("mend", "Clear a plan that a wrong clock has made, before it starts");
  addStateDirectory(*command, given);
  command->final_callback([&given] { mend(stateDirectoryOf(given)); });
}

void addNote(CLI::App& app, Arguments& given) {
  CLI::App* command = app.add_subcommand("note", "Take a mark in the books of usage on battery");
  addStateDirectory(*command, given);
  command->add_flag("--last", given.note.is_last, "Nobody watches after it: the machine is shut down");
  command->add_flag("--settle", given.settles, "Take more until the plug has not changed for ten seconds")
      ->excludes("--last");
  command->final_callback([&given] {
    const std::string directory = stateDirectoryOf(given);
    given.settles ? settle(directory) : note(directory, given.note);
  });
}

#ifdef VOLORN_WAKETIDE_ARM
// Gone after a boot, like the timer and what systemd knows of past runs.
constexpr const char* kRuntimeDirectory = "/run/waketide";

void addArm(CLI::App& app, Arguments& given) {
  CLI::App* command = app.add_subcommand("arm", "Have systemd start it through volorn.timer, and end");
  addStateDirectory(*command, given);
  command->final_callback([&given] { arm(stateDirectoryOf(given), kRuntimeDirectory); });
}
#endif

int run(int argc, char** argv) {
  Arguments given;
  CLI::App app("Starts volornd whenever its job falls due.", "waketide");
  app.set_version_flag("--version", std::string("waketide ") + VOLORN_VERSION);
  app.require_subcommand(1);
  addServe(app, given);
  addMend(app, given);
  addNote(app, given);
#ifdef VOLORN_WAKETIDE_ARM
  addArm(app, given);
#endif
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? kDone : kUsage;
  }
  return kDone;
}

}  // namespace
}  // namespace volorn::waketide

int main(int argc, char** argv) try {
  return volorn::waketide::run(argc, argv);
} catch (const std::exception& error) {
  volorn::waketide::tell(error.what());
  return volorn::waketide::kCouldNot;
}
