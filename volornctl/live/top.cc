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

constexpr double kMaxIntervalSeconds = 1e6;

std::string checkInterval(const std::string& text) {
  const std::optional<double> seconds = numberOf<double>(text);
  const bool is_good = seconds && *seconds > 0 && *seconds <= kMaxIntervalSeconds;
  return is_good ? "" : "not a number of seconds above 0 and up to a million: " + text;
}

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
  return command;
}

// Names every user of the sample's processes.
void TopCommand::nameUsers(const Sample& sample) {
  for (const ProcessFigures& process : sample.processes) {
    if (names_.contains(process.uid)) continue;
    names_[process.uid] = userNameOf(process.uid).value_or(std::to_string(process.uid));
  }
}

void TopCommand::print(const Surroundings& surroundings) {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
  endAtInterrupt();
  LiveSampler sampler;
  Clock::time_point next = Clock::now();
  for (std::int64_t taken = 0; taken != count_; ++taken) {
    if (taken > 0) surroundings.output.waitUntil(next);
    next = Clock::now() + interval;
    const Sample sample = sampler.take();
    // The first takes longest, and what follows is to be over no less than an interval.
    if (taken == 0) next = Clock::now() + interval;
    if (!json_ || choice_.order == Column::kUser) nameUsers(sample);
    const ProcessList processes = listProcesses(sample, choice_, names_);
    std::string text = taken > 0 && !json_ ? "\n" : "";
    text += json_ ? topJson(sample, processes)
                  : topBlock(sample, processes, names_, std::nullopt, surroundings.colour);
    surroundings.output.write(text);
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

void TopCommand::run(const Surroundings& surroundings) {
  const bool is_terminal = surroundings.output.isTerminal() && !json_;
  if (is_terminal && !CursesTerminal::isBuilt()) {
    surroundings.errors.write("volornctl: built without ncurses, so there is no screen: samples follow\n");
  }
  if (!is_terminal || !show(surroundings)) print(surroundings);
}

}  // namespace volorn::ctl
