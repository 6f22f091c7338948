#include "volornctl/program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/state/state_reader.h"
#include "volornctl/choices.h"
#include "volornctl/command.h"
#include "volornctl/completion.h"
#ifdef VOLORN_PUSH
#include "volornctl/kept/export.h"
#endif
#include "volornctl/kept/history.h"
#include "volornctl/kept/metrics.h"
#include "volornctl/kept/report.h"
#include "volornctl/kept/status.h"
#include "volornctl/live/memory.h"
#include "volornctl/live/summary.h"
#include "volornctl/live/top.h"
#include "volornctl/recorded/replay.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;

std::vector<std::unique_ptr<Command>> makeCommands() {
  std::vector<std::unique_ptr<Command>> commands;
  commands.push_back(std::make_unique<StatusCommand>());
  commands.push_back(std::make_unique<MetricsCommand>());
  commands.push_back(std::make_unique<HistoryCommand>());
  commands.push_back(std::make_unique<ReportCommand>());
#ifdef VOLORN_PUSH
  commands.push_back(std::make_unique<ExportCommand>());
#endif
  commands.push_back(std::make_unique<SummaryCommand>());
  commands.push_back(std::make_unique<TopCommand>());
  commands.push_back(std::make_unique<MemoryCommand>());
  if (std::unique_ptr<Command> record = makeRecordCommand()) commands.push_back(std::move(record));
  commands.push_back(std::make_unique<CompletionCommand>());
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

// Parses and runs, and returns what the program ends with. Help and version are results and not errors.
int run(int argc, const char* const* argv, Surroundings& surroundings) {
  CLI::App program("Shows what volornd keeps, and what the machine does now.", "volornctl");
  program.set_version_flag("--version", "volornctl " VOLORN_VERSION);
  program.formatter(makeHelpFormatter());
  if (!isRecordBuilt()) program.footer("Built without libzstd: nothing is recorded or replayed.");
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
    return kDone;
  } catch (const CLI::CallForVersion& version) {
    surroundings.output.write(std::string(version.what()) + "\n");
    return kDone;
  } catch (const CLI::ArgumentMismatch& mismatch) {
    // The parser's own text lists what the option takes, as it lists it nowhere else.
    const std::string text = mismatch.what();
    throw CLI::ValidationError(text.substr(0, text.find(':')), "its value is missing");
  } catch (const CLI::ExtrasError&) {
    std::vector<const CLI::App*> parsers = {&program};
    for (const CLI::App* command : program.get_subcommands()) parsers.push_back(command);
    const std::vector<std::string> extras = program.remaining(true);
    const auto* word = std::find_first_of(argv + 1, argv + argc, extras.begin(), extras.end());
    throw CLI::ValidationError(unexpectedWord(word == argv + argc ? extras.front() : *word, parsers));
  }
  if (argc <= 1) {
    surroundings.output.write(program.help());
    return kDone;
  }
  // Asked here, and not by the parser, which would say so of a misspelt command too.
  if (program.get_subcommands().empty()) throw CLI::RequiredError("A command");
  for (const auto& [parser, command] : commands) {
    if (!parser->parsed()) continue;
    command->run(surroundings);
    return command->exitStatus();
  }
  return kDone;
}

}  // namespace

int runProgram(int argc, const char* const* argv, Surroundings surroundings) {
  try {
    return run(argc, argv, surroundings);
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
