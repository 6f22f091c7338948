#include "volornctl/top_view.h"

#include <optional>
#include <string>
#include <utility>

#include "volornctl/terminal.h"
#include "volornctl/top_text.h"

namespace volorn::ctl {
namespace {

std::string block(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

class JsonView : public TopView {
 public:
  explicit JsonView(Output& output) : output_(output) {}

  void show(TopFigures figures) override { output_.write(topJson(figures)); }

  bool waitUntil(std::chrono::steady_clock::time_point moment) override {
    output_.waitUntil(moment);
    return true;
  }

 private:
  Output& output_;
};

class BlockView : public TopView {
 public:
  BlockView(Output& output, bool colour) : output_(output), colour_(colour) {}

  void show(TopFigures figures) override {
    std::string text = is_first_ ? "" : "\n";
    output_.write(text += block(topLines(figures, std::nullopt, colour_)));
    is_first_ = false;
  }

  bool waitUntil(std::chrono::steady_clock::time_point moment) override {
    output_.waitUntil(moment);
    return true;
  }

 private:
  Output& output_;
  bool colour_;
  bool is_first_ = true;
};

class ScreenView : public TopView {
 public:
  ScreenView(int keyboard_fd, Output& output, bool colour) : output_(output), colour_(colour) {
    terminal_.emplace(keyboard_fd, output);
  }

  void show(TopFigures figures) override {
    figures_ = std::move(figures);
    terminal_->draw(topLines(figures_, output_.room(), colour_));
  }

  bool waitUntil(std::chrono::steady_clock::time_point moment) override {
    while (true) {
      switch (terminal_->waitUntil(moment)) {
        case Terminal::Event::kElapsed:
          return true;
        case Terminal::Event::kQuit:
          return false;
        case Terminal::Event::kRedraw:
          terminal_->draw(topLines(figures_, output_.room(), colour_));
      }
    }
  }

  // What was drawn goes with the screen; who asked for so many samples is to find the last one.
  void end() override {
    Room room = output_.room();
    --room.rows;  // the line of the next prompt
    terminal_.reset();
    output_.write(block(topLines(figures_, room, colour_)));
  }

 private:
  Output& output_;
  bool colour_;
  std::optional<Terminal> terminal_;
  TopFigures figures_{.at = Date::fromSecondsSince1970(0)};
};

}  // namespace

std::unique_ptr<TopView> makeJsonView(Output& output) {
  return std::make_unique<JsonView>(output);
}

std::unique_ptr<TopView> makeTextView(int keyboard_fd, Output& output, bool colour) {
  if (output.isTerminal()) return std::make_unique<ScreenView>(keyboard_fd, output, colour);
  return std::make_unique<BlockView>(output, colour);
}

}  // namespace volorn::ctl
