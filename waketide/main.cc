#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/linux/state/state_directory.h"
#ifdef VOLORN_WAKETIDE_ARM
#include "waketide/arm.h"
#endif
#include "waketide/mend.h"
#include "waketide/serve.h"
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
};

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
    options.daemon_path = std::filesystem::read_symlink("/proc/self/exe").replace_filename("volornd");
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
