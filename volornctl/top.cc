#include "volornctl/top.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "volornctl/number_option.h"
#include "volornctl/top_sampler.h"
#include "volornctl/top_view.h"

namespace volorn::ctl {
namespace {

constexpr double kMaxIntervalSeconds = 1e6;

struct NamedOrder {
  std::string_view name;
  TopOrder order;
};

constexpr std::array kOrders = {NamedOrder{"cpu", TopOrder::kCpu}, NamedOrder{"private", TopOrder::kPrivate},
                                NamedOrder{"resident", TopOrder::kResident},
                                NamedOrder{"faults", TopOrder::kFaults},
                                NamedOrder{"switches", TopOrder::kSwitches}};

std::string checkInterval(const std::string& text) {
  const std::optional<double> seconds = numberOf<double>(text);
  const bool is_good = seconds && *seconds > 0 && *seconds <= kMaxIntervalSeconds;
  return is_good ? "" : "not a number of seconds above 0 and up to a million: " + text;
}

}  // namespace

CLI::App* TopCommand::addTo(CLI::App& program) {
  CLI::App* command =
      program.add_subcommand("top", "Follow what the machine and its processes do, until q or Ctrl-C");
  command->add_option("--interval", interval_seconds_, "Seconds from one sample to the next, 1 unless told")
      ->type_name("S")
      ->check(checkInterval);
  command->add_option("--count", count_, "End after so many samples")->type_name("N")->check(checkCount);
  const auto take_order = [this](const std::string& name) {
    const auto* named = std::ranges::find(kOrders, name, &NamedOrder::name);
    if (named == kOrders.end()) throw CLI::ValidationError("--sort", "not an order: " + name);
    order_ = named->order;
  };
  command
      ->add_option_function<std::string>(
          "--sort", take_order, "What has most first: cpu (unless told), private, resident, faults, switches")
      ->type_name("BY");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void TopCommand::run(const Surroundings& surroundings) {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
  TopSampler sampler;
  const std::unique_ptr<TopView> view =
      json_ ? makeJsonView(surroundings.output)
            : makeTextView(STDIN_FILENO, surroundings.output, surroundings.colour);
  std::optional<TopSample> before;
  Clock::time_point next = Clock::now();
  for (std::int64_t taken = 0; taken != count_; ++taken) {
    if (before && !view->waitUntil(next)) return;
    next = Clock::now() + interval;
    TopSample sample = sampler.take();
    // It takes longest, and what follows is to be over no less than an interval.
    if (!before) next = Clock::now() + interval;
    TopFigures figures = figuresOf(sample, before ? &*before : nullptr);
    sortProcesses(figures.processes, order_);
    view->show(std::move(figures));
    before = std::move(sample);
  }
  view->end();
}

}  // namespace volorn::ctl
