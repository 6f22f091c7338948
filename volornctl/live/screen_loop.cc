#include "volornctl/live/screen_loop.h"

#include <string>
#include <utility>
#include <vector>

#include "volornctl/live/top_screen.h"

namespace volorn::ctl {
namespace {

// The last frame without its prompt, as lines of text.
std::string textOf(const Frame& frame) {
  std::string text;
  for (std::size_t i = 0; i + 1 < frame.lines.size(); ++i) {
    std::string line;
    for (const Span& span : frame.lines[i]) line += span.text;
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

class Loop {
 public:
  Loop(CursesTerminal& terminal, SampleSource& source, ReplaySource* replay, LookupThread* lookups,
       const ProcessChoice& choice, double interval_seconds)
      : terminal_(terminal),
        source_(source),
        replay_(replay),
        lookups_(lookups),
        screen_(choice, interval_seconds, terminal.isUnicode()) {}

  // Whether the source came to its end.
  bool run() {
    std::vector<int> ready = {source_.readyFd()};
    if (lookups_) ready.push_back(lookups_->readyFd());
    while (true) {
      terminal_.draw(screen_.draw(terminal_.room()));
      lookUp();
      const CursesTerminal::Event event = terminal_.wait(ready);
      if (event.is_gone || !press(event.keys)) return false;
      takeFound();
      // What a key does is seen before a new sample, which takes its time to be put in order, is taken.
      if (event.keys.empty() && !takeSamples()) return true;
    }
  }

  std::string lastText(const Room& room) { return textOf(screen_.draw(room)); }

 private:
  bool press(const std::vector<Key>& keys) {
    const double interval_seconds = screen_.intervalSeconds();
    const bool is_paused = screen_.isPaused();
    for (const Key& key : keys) {
      if (!screen_.press(key)) return false;
      const std::optional<Move> move = screen_.takeMove();
      if (move && replay_) replay_->move(*move);
    }
    if (screen_.intervalSeconds() != interval_seconds) source_.setInterval(screen_.intervalSeconds());
    if (screen_.isPaused() != is_paused) source_.setPaused(screen_.isPaused());
    return true;
  }

  // False when there will be no more.
  bool takeSamples() {
    const bool is_over = source_.isOver();
    while (std::shared_ptr<const Sample> sample = source_.next()) {
      if (replay_) {
        screen_.take(replay_->shown());
      } else if (screen_.isPaused()) {
        continue;  // it was under way when the pause began
      }
      screen_.take(std::move(sample));
      is_new_ = true;
    }
    return !is_over;
  }

  void takeFound() {
    while (lookups_) {
      const std::optional<Found> found = lookups_->found();
      if (!found) return;
      screen_.take(*found);
      is_asked_ = false;
    }
  }

  // What changes is looked up again after each sample.
  void lookUp() {
    const Wanted wanted = screen_.wanted();
    const bool is_other = wanted != std::exchange(asked_, wanted);
    if (!lookups_ || wanted == Wanted() || (!is_other && (is_asked_ || !is_new_ || !wanted.changes()))) {
      return;
    }
    lookups_->want(wanted);
    is_asked_ = true;
    is_new_ = false;
  }

  CursesTerminal& terminal_;
  SampleSource& source_;
  ReplaySource* replay_;  // the same, or null
  LookupThread* lookups_;
  TopScreen screen_;
  Wanted asked_;
  bool is_asked_ = false;
  bool is_new_ = false;
};

}  // namespace

void runScreen(std::unique_ptr<CursesTerminal> terminal, Output& output, SampleSource& source,
               LookupThread* lookups, const ProcessChoice& choice, double interval_seconds) {
  Loop loop(*terminal, source, nullptr, lookups, choice, interval_seconds);
  const bool is_over = loop.run();
  Room room = terminal->room();
  --room.rows;  // the line of the next prompt
  terminal.reset();
  // What was drawn goes with the screen; who asked for so many samples is to find the last one.
  if (is_over) output.write(loop.lastText(room));
}

void runReplay(std::unique_ptr<CursesTerminal> terminal, ReplaySource& source, LookupThread* lookups,
               const ProcessChoice& choice, double interval_seconds) {
  Loop(*terminal, source, &source, lookups, choice, interval_seconds).run();
}

}  // namespace volorn::ctl
