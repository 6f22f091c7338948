#include "volornctl/live/top.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include "volornctl/choices.h"
#include "volornctl/live/live_sampler.h"
#include "volornctl/live/process_options.h"
#include "volornctl/live/sample_source.h"
#include "volornctl/live/screen_loop.h"
#include "volornctl/live/top_blocks.h"
#include "volornctl/live/top_json.h"
#include "volornctl/live/users.h"
#include "volornctl/number_option.h"

namespace volorn::ctl {
namespace {

void end(int /*signal*/) {
  _exit(0);
}

// Who follows a machine ends that by Ctrl-C: it is no failure. Where it is ignored it stays so.
void endAtInterrupt() {
  struct sigaction before = {};
  if (sigaction(SIGINT, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) std::signal(SIGINT, end);
}

}  // namespace

CLI::App* TopCommand::addTo(CLI::App& program) {
  CLI::App* command =
      program.add_subcommand("top", "Follow what the machine and its processes do, until q or Ctrl-C");
  command
      ->add_option("-d,--interval", interval_seconds_, "Seconds from one sample to the next, 1 unless told")
      ->type_name("S")
      ->check(checkInterval);
  command->add_option("-n,--count", count_, "End after so many samples")->type_name("N")->check(checkCount);
  command
      ->add_option_function<std::string>(
          "-o,--sort", [this](const std::string& name) { choice_.order = *columnNamed(name); },
          "Order by this column, cpu unless told: " + listed(columnNames()))
      ->type_name("BY")
      ->check(oneOf(columnNames()));
  command->add_flag("--reverse", choice_.is_reversed, "Turn the order round");
  addPidOption(*command, choice_);
  addUserOption(*command, choice_);
  command->add_option("--filter", choice_.name, "Processes only whose names hold this")->type_name("TEXT");
  command->add_option("--limit", choice_.limit, "The first so many processes only")
      ->type_name("N")
      ->check(checkCount);
  command->add_flag("--json", json_, kJsonHelp);
  if (isRecordBuilt()) addReplayOptions(*command);
  return command;
}

void TopCommand::addReplayOptions(CLI::App& command) {
  const auto add = [&](const char* name, std::string& value, const char* help) {
    CLI::Option* option = command.add_option(name, value, help);
    return option;
  };
  replay_option_ =
      add("--replay", replay_.path, "Show what volornctl record kept, in its usual file or another");
  replay_option_->type_name("FILE")->expected(0, 1);
  add("--at", replay_.at,
      "Where the screen of a replay begins, 2026-11-23T04:05:06Z or 04:05; at the end unless told")
      ->type_name("TIME")
      ->needs(replay_option_);
  add("--since", replay_.since, "From this time or day on, without a screen")
      ->type_name("TIME")
      ->needs(replay_option_);
  add("--until", replay_.until, "To this time, or the end of this day")
      ->type_name("TIME")
      ->needs(replay_option_);
}

// Names every user of the sample's processes.
void TopCommand::nameUsers(const Sample& sample) {
  for (const ProcessFigures& process : sample.processes) {
    if (names_.contains(process.uid)) continue;
    names_[process.uid] = userNameOf(process.uid).value_or(std::to_string(process.uid));
  }
}

void TopCommand::print(const Surroundings& surroundings, const Sample& sample, bool is_first) {
  if (!json_ || choice_.order == Column::kUser) nameUsers(sample);
  const ProcessList processes = listProcesses(sample, choice_, names_);
  std::string text = !is_first && !json_ ? "\n" : "";
  text += json_ ? topJson(sample, processes)
                : topBlock(sample, processes, names_, std::nullopt, surroundings.colour);
  surroundings.output.write(text);
}

void TopCommand::follow(const Surroundings& surroundings) {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
  LiveSampler sampler;
  Clock::time_point next = Clock::now();
  for (std::int64_t taken = 0; taken != count_; ++taken) {
    if (taken > 0) surroundings.output.waitUntil(next);
    next = Clock::now() + interval;
    const Sample sample = sampler.take();
    // The first takes longest, and what follows is to be over no less than an interval.
    if (taken == 0) next = Clock::now() + interval;
    print(surroundings, sample, taken == 0);
  }
}

void TopCommand::printRecord(const Surroundings& surroundings) {
  std::int64_t shown = 0;
  const std::size_t damaged = replay(replay_, [&](const Sample& sample) {
    print(surroundings, sample, shown == 0);
    return ++shown != count_;
  });
  if (damaged > 0) {
    surroundings.errors.write("volornctl: the record is damaged: " + std::to_string(damaged) +
                              " samples are left out\n");
  }
}

bool TopCommand::show(const Surroundings& surroundings) {
  std::unique_ptr<CursesTerminal> terminal =
      CursesTerminal::open(STDIN_FILENO, surroundings.output, surroundings.colour);
  if (!terminal) return false;
  SamplingThread samples([] { return std::make_unique<LiveSampler>(); }, interval_seconds_, count_);
  LookupThread lookups(makeLiveLookups());
  runScreen(std::move(terminal), surroundings.output, samples, &lookups, choice_, interval_seconds_);
  // Who leaves does not wait for the end of a look at thousands of processes: it changes nothing.
  if (samples.isSampling() || lookups.isLooking()) _exit(0);
  return true;
}

bool TopCommand::showRecord(const Surroundings& surroundings) {
  const std::unique_ptr<ReplaySource> record = openReplay(replay_, interval_seconds_);
  std::unique_ptr<CursesTerminal> terminal =
      CursesTerminal::open(STDIN_FILENO, surroundings.output, surroundings.colour);
  if (!terminal) return false;
  LookupThread lookups(makeUserLookups());
  // The users of another machine are not this one's.
  LookupThread* names = replay_.path.empty() ? &lookups : nullptr;
  runReplay(std::move(terminal), *record, names, choice_, interval_seconds_);
  if (lookups.isLooking()) _exit(0);
  return true;
}

void TopCommand::run(const Surroundings& surroundings) {
  const bool is_replay = replay_option_ && replay_option_->count() > 0;
  const bool is_terminal = surroundings.output.isTerminal() && !json_;
  if (is_terminal && !CursesTerminal::isBuilt()) {
    surroundings.errors.write("volornctl: built without ncurses, so there is no screen: samples follow\n");
  }
  const bool has_end = !replay_.since.empty() || !replay_.until.empty();
  if (is_terminal && !has_end && (is_replay ? showRecord(surroundings) : show(surroundings))) return;
  endAtInterrupt();
  is_replay ? printRecord(surroundings) : follow(surroundings);
}

}  // namespace volorn::ctl
