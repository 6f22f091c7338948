#include "volornctl/program.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/state/state_reader.h"
#include "volornctl/command.h"
#include "volornctl/history.h"
#include "volornctl/memory.h"
#include "volornctl/metrics.h"
#include "volornctl/status.h"
#include "volornctl/summary.h"
#include "volornctl/table.h"
#include "volornctl/top.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;

std::vector<std::unique_ptr<Command>> makeCommands() {
  std::vector<std::unique_ptr<Command>> commands;
  commands.push_back(std::make_unique<StatusCommand>());
  commands.push_back(std::make_unique<MetricsCommand>());
  commands.push_back(std::make_unique<HistoryCommand>());
  commands.push_back(std::make_unique<SummaryCommand>());
  commands.push_back(std::make_unique<TopCommand>());
  commands.push_back(std::make_unique<MemoryCommand>());
  return commands;
}

void tell(Output& errors, const std::string& text) {
  try {
    errors.write("volornctl: " + escaped(text) + "\n");
  } catch (const std::runtime_error&) {
    // Nobody is left to be told.
  }
}

// No option has an empty value. After "--name=" the parser would take the next word for it.
void refuseEmptyValues(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.empty()) throw CLI::ValidationError("A word of the command line is empty");
    if (word.starts_with("--") && word.find('=') == word.size() - 1) {
      throw CLI::ValidationError(word.substr(0, word.size() - 1), "its value is empty");
    }
  }
}

// Parses and runs. Help and version are results and not errors.
void run(int argc, const char* const* argv, Surroundings& surroundings) {
  CLI::App program("Shows what volornd keeps, and what the machine does now.", "volornctl");
  program.set_version_flag("--version", "volornctl " VOLORN_VERSION);
  program.require_subcommand(0, 1);
  program.fallthrough();  // --state-dir may stand after the command too
  program.add_option("--state-dir", surroundings.state_directory, "Read the state file in this folder")
      ->type_name("DIR");
  std::vector<std::pair<CLI::App*, std::unique_ptr<Command>>> commands;
  for (std::unique_ptr<Command>& command : makeCommands()) {
    CLI::App* parser = command->addTo(program);
    commands.emplace_back(parser, std::move(command));
  }
  refuseEmptyValues(argc, argv);
  try {
    program.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    surroundings.output.write(program.help());
    return;
  } catch (const CLI::CallForVersion& version) {
    surroundings.output.write(std::string(version.what()) + "\n");
    return;
  }
  // Asked here, and not by the parser, which would say so of a misspelt command too.
  if (program.get_subcommands().empty()) throw CLI::RequiredError("A command");
  for (const auto& [parser, command] : commands) {
    if (parser->parsed()) command->run(surroundings);
  }
}

}  // namespace

ExitStatus runProgram(int argc, const char* const* argv, Surroundings surroundings) {
  try {
    run(argc, argv, surroundings);
    return kDone;
  } catch (const OutputClosed&) {
    return kDone;
  } catch (const CLI::ParseError& error) {
    tell(surroundings.errors, std::string(error.what()) + "; see volornctl --help");
    return kUsage;
  } catch (const StateUnreadable& error) {
    tell(surroundings.errors, error.what());
    return error.reason() == StateUnreadable::Reason::kNothingYet ? kNoData : kFailed;
  } catch (const std::exception& error) {
    tell(surroundings.errors, error.what());
    return kFailed;
  }
}

}  // namespace volorn::ctl
