// What the screen of `top` has for a replay besides.
#include <cmath>
#include <utility>

#include "volornctl/live/replay_strip.h"
#include "volornctl/live/top_screen.h"
#include "volornctl/text/graph.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr std::size_t kLabelColumns = 12;
constexpr std::size_t kLeastRows = 14;  // of a screen that has room for the strip
constexpr std::int64_t kMinuteSeconds = 60;
constexpr std::int64_t kHourSeconds = 3600;

}  // namespace

void TopScreen::take(const Replayed& replayed) {
  replayed_ = replayed;
  is_paused_ = !replayed.is_playing;
  if (!replayed.message.empty() || !replayed.is_playing) message_ = replayed.message;
  if (replayed.follows) return;
  history_ = {};
  for (const Sample& sample : replayed.before) history_.take(sample);
  replayed_->before.clear();
  if (page_) page_->forgetPast();
}

// False for a key that means the same as anywhere.
bool TopScreen::pressInReplay(const Key& key) {
  if (mode_ != Mode::kList && mode_ != Mode::kProcess) return false;
  const auto bySamples = [this](std::int64_t samples) { move_ = {.amount = samples}; };
  const auto bySeconds = [this](std::int64_t seconds) {
    move_ = {.kind = Move::Kind::kSeconds, .amount = seconds};
  };
  if (key.name == KeyName::kLeft || key.name == KeyName::kRight) {
    bySamples(key.name == KeyName::kLeft ? -1 : 1);
    return true;
  }
  if (key.name != KeyName::kCharacter || key.text.size() != 1) return false;
  switch (key.text[0]) {
    case '[':
      bySeconds(-kMinuteSeconds);
      return true;
    case ']':
      bySeconds(kMinuteSeconds);
      return true;
    case '{':
      bySeconds(-kHourSeconds);
      return true;
    case '}':
      bySeconds(kHourSeconds);
      return true;
    case 'b':
      move_ = {.kind = Move::Kind::kBusy, .amount = 1};
      return true;
    case 'n':
      if (!sought_.empty()) {
        move_ = {.kind = Move::Kind::kProcess, .amount = 1, .text = sought_};
        message_ = "searching; any other move ends it";
        return true;
      }
      [[fallthrough]];
    case 'f':
      ask(Mode::kFind, sought_);
      return true;
    case 'g':
      ask(Mode::kTime, "");
      return true;
    default:
      return false;
  }
}

// Which sample of how many it is, and what was before it.
std::string TopScreen::replayText() const {
  const RecordedSample& sample = (*replayed_->all)[replayed_->place];
  std::string text =
      "  " + std::to_string(replayed_->place + 1) + " of " + std::to_string(replayed_->all->size());
  const auto seconds = static_cast<std::int64_t>(std::min(std::abs(sample.break_seconds), 1e15));
  switch (sample.begins) {
    case Break::kStart:
      return text + ", the recorder began";
    case Break::kSleep:
      return text + ", after " + duration(seconds) + " asleep";
    case Break::kClock:
      return text + ", the clock was set " + (sample.break_seconds < 0 ? "back by " : "on by ") +
             duration(seconds);
    case Break::kNone:
      break;
  }
  return text;
}

void TopScreen::addStrip(Frame& frame, const Room& room) const {
  if (room.rows < kLeastRows || room.columns <= 2 * kLabelColumns) return;
  const std::size_t columns = room.columns - kLabelColumns;
  ReplayStrip strip = stripOf(*replayed_->all, replayed_->place, columns);
  const auto add = [&](const char* label, std::string text) {
    std::string padded = label;
    padded.resize(kLabelColumns, ' ');
    frame.lines.push_back({{.text = std::move(padded), .style = Style::kStrong},
                           {.text = std::move(text), .style = Style::kGraph}});
  };
  const Axis percents = {.low = 0, .high = 100};
  add("All: busy", graph(strip.busy_percent, percents, unicode_));
  add("All: memory", graph(strip.used_percent, percents, unicode_));
  std::string marks = strip.breaks.substr(0, strip.place);
  marks += unicode_ ? "▲" : "^";
  marks += strip.breaks.substr(strip.place + 1);
  add("", std::move(marks));
}

}  // namespace volorn::ctl
