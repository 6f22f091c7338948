// What the keys of the screen do. What it shows is in top_frame.cc.
#include "volornctl/live/top_screen.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace volorn::ctl {
namespace {

constexpr std::array kIntervalsSeconds = {0.1, 0.2, 0.5, 1.0, 2.0, 3.0, 5.0, 10.0, 30.0, 60.0};

constexpr std::size_t kMostCommandLines = 10'000;

// Without its last character.
void removeLast(std::string& text) {
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  if (!text.empty()) text.pop_back();
}

}  // namespace

TopScreen::TopScreen(ProcessChoice choice, double interval_seconds, bool unicode)
    : choice_(std::move(choice)), interval_seconds_(interval_seconds), unicode_(unicode) {
  choice_.hides_kernel_threads = choice_.pids.empty();
  for (std::size_t i = 0; i < widths_.size(); ++i) widths_[i] = kColumns[i].width;
}

void TopScreen::take(std::shared_ptr<const Sample> sample) {
  sample_ = std::move(sample);
  history_.take(*sample_);
  if (page_) page_->take(*sample_);
  if (command_lines_.size() > kMostCommandLines) command_lines_.clear();  // they are looked up again
  relist();
}

void TopScreen::take(const Found& found) {
  for (const auto& [uid, name] : found.users) users_[uid] = name;
  for (const auto& [id, text] : found.command_lines) {
    if (!text.empty()) command_lines_[id] = text;  // that of a process that has ended stays
  }
  if (page_ && found.opened) page_->take(*found.opened);
  if (!found.users.empty()) relist();
}

// The row of the selected process, wherever it has gone; when that has ended, the one in its place.
void TopScreen::relist() {
  if (!sample_) return;
  list_ = listProcesses(*sample_, choice_, users_);
  if (selected_) {
    const auto row = std::ranges::find_if(
        list_, [this](const ProcessRow& other) { return idOf(*other.process) == *selected_; });
    if (row != list_.end()) place_ = static_cast<std::size_t>(row - list_.begin());
  }
  place_ = list_.empty() ? 0 : std::min(place_, list_.size() - 1);
  if (selected_ && !list_.empty()) selected_ = idOf(*list_[place_].process);
}

bool TopScreen::press(const Key& key) {
  message_.clear();
  if (replayed_ && pressInReplay(key)) return true;
  switch (mode_) {
    case Mode::kList:
      return pressInList(key);
    case Mode::kFilter:
    case Mode::kUser:
    case Mode::kTime:
    case Mode::kFind:
      pressInPrompt(key);
      return true;
    case Mode::kProcess:
    case Mode::kHelp:
      pressInPage(key);
      return true;
  }
  return true;
}

bool TopScreen::pressInList(const Key& key) {
  if (key.name == KeyName::kCharacter) return key.text.size() != 1 || pressCharacter(key.text[0]);
  if (key.name == KeyName::kEnter) openSelected();
  if (key.name == KeyName::kEscape) {
    selected_.reset();
    place_ = 0;
  }
  moveTo(key);
  return true;
}

bool TopScreen::moveTo(const Key& key) {
  const std::size_t last = list_.empty() ? 0 : list_.size() - 1;
  const auto up = [this](std::size_t rows) { place_ -= std::min(place_, rows); };
  switch (key.name) {
    case KeyName::kUp:
      up(1);
      break;
    case KeyName::kDown:
      ++place_;
      break;
    case KeyName::kPageUp:
      up(rows_);
      break;
    case KeyName::kPageDown:
      place_ += rows_;
      break;
    case KeyName::kHome:
      place_ = 0;
      break;
    case KeyName::kEnd:
      place_ = last;
      break;
    default:
      return false;
  }
  place_ = std::min(place_, last);
  if (!list_.empty()) selected_ = idOf(*list_[place_].process);
  return true;
}

bool TopScreen::pressCharacter(char key) {
  switch (key) {
    case 'q':
    case 'Q':
      return false;
    case '?':
    case 'h':
      mode_ = Mode::kHelp;
      first_line_ = 0;
      break;
    case '/':
      ask(Mode::kFilter, choice_.name);
      break;
    case 'u':
      ask(Mode::kUser, "");
      break;
    case 'P':
    case 'M':
    case 'T':
    case 'N':
      chooseOrder(key == 'P'   ? Column::kCpu
                  : key == 'M' ? Column::kResident
                  : key == 'T' ? Column::kTime
                               : Column::kPid);
      break;
    case '<':
      moveOrder(-1);
      break;
    case '>':
      moveOrder(1);
      break;
    case 'R':
      choice_.is_reversed = !choice_.is_reversed;
      break;
    case 'H':
      choice_.hides_kernel_threads = !choice_.hides_kernel_threads;
      message_ = choice_.hides_kernel_threads ? "kernel threads are hidden" : "kernel threads are shown";
      break;
    case 't':
      choice_.is_tree = !choice_.is_tree;
      break;
    case 'c':
      shows_command_lines_ = !shows_command_lines_;
      break;
    case ' ':
      is_paused_ = !is_paused_;
      break;
    case '+':
      changeInterval(1);
      break;
    case '-':
      changeInterval(-1);
      break;
    default:
      return true;
  }
  relist();
  return true;
}

void TopScreen::chooseOrder(Column order) {
  choice_.order = order;
  choice_.is_reversed = false;
  message_ = std::string("ordered by ") + traitsOf(order).name;
}

// Among the columns as they stand on the screen, those that find no room there with them.
void TopScreen::moveOrder(int way) {
  const auto count = static_cast<int>(kColumns.size());
  const int next = (static_cast<int>(choice_.order) + way + count) % count;
  chooseOrder(static_cast<Column>(next));
}

void TopScreen::changeInterval(int way) {
  if (way > 0) {
    const auto* longer = std::ranges::upper_bound(kIntervalsSeconds, interval_seconds_);
    if (longer != kIntervalsSeconds.end()) interval_seconds_ = *longer;
  } else {
    const auto* shorter = std::ranges::lower_bound(kIntervalsSeconds, interval_seconds_);
    if (shorter != kIntervalsSeconds.begin()) interval_seconds_ = *std::prev(shorter);
  }
}

void TopScreen::ask(Mode mode, std::string typed) {
  mode_ = mode;
  typed_ = std::move(typed);
}

// What was typed is done, but for the filter, which is at every key.
void TopScreen::answer() {
  const Mode asked = std::exchange(mode_, Mode::kList);
  if (asked == Mode::kUser) {
    choice_.user = typed_;
    choice_.uid.reset();
  } else if (asked == Mode::kTime && !typed_.empty()) {
    move_ = {.kind = Move::Kind::kTime, .text = typed_};
  } else if (asked == Mode::kFind && !typed_.empty()) {
    sought_ = typed_;
    move_ = {.kind = Move::Kind::kProcess, .amount = 1, .text = typed_};
    message_ = "searching; any other move ends it";
  }
}

void TopScreen::pressInPrompt(const Key& key) {
  const bool is_filter = mode_ == Mode::kFilter;
  switch (key.name) {
    case KeyName::kCharacter:
      typed_ += key.text;
      break;
    case KeyName::kBackspace:
      removeLast(typed_);
      break;
    case KeyName::kEscape:
      mode_ = Mode::kList;
      if (is_filter) choice_.name.clear();
      break;
    case KeyName::kEnter:
      answer();
      break;
    default:
      moveTo(key);
      return;
  }
  if (is_filter && key.name != KeyName::kEscape) choice_.name = typed_;
  relist();
}

void TopScreen::pressInPage(const Key& key) {
  const std::size_t step = std::max<std::size_t>(rows_, 2) - 1;
  const std::size_t most = page_lines_ > rows_ ? page_lines_ - rows_ : 0;
  switch (key.name) {
    case KeyName::kUp:
      first_line_ -= std::min<std::size_t>(first_line_, 1);
      break;
    case KeyName::kDown:
      ++first_line_;
      break;
    case KeyName::kPageUp:
      first_line_ -= std::min(first_line_, step);
      break;
    case KeyName::kPageDown:
      first_line_ += step;
      break;
    case KeyName::kHome:
      first_line_ = 0;
      break;
    case KeyName::kEnd:
      first_line_ = most;
      break;
    case KeyName::kCharacter:
      if (mode_ == Mode::kProcess && key.text == " ") is_paused_ = !is_paused_;
      if (mode_ == Mode::kProcess && key.text != "q") return;
      [[fallthrough]];
    default:
      mode_ = Mode::kList;
      page_.reset();
  }
  first_line_ = std::min(first_line_, most);
}

void TopScreen::openSelected() {
  if (list_.empty()) return;
  const ProcessFigures& process = *list_[place_].process;
  selected_ = idOf(process);
  page_.emplace(process);
  page_->take(*sample_);
  mode_ = Mode::kProcess;
  first_line_ = 0;
}

Wanted TopScreen::wanted() const {
  Wanted wanted;
  if (!sample_) return wanted;
  for (std::size_t i = first_row_; i < list_.size() && i < first_row_ + rows_; ++i) {
    const ProcessFigures& process = *list_[i].process;
    if (!users_.contains(process.uid)) wanted.users.insert(process.uid);
    if (shows_command_lines_) wanted.command_lines.insert(idOf(process));
  }
  // Who is chosen or ordered by name has to be known by it, on the screen or not.
  const bool needs_users = !choice_.user.empty() || choice_.order == Column::kUser;
  for (const ProcessFigures& process : sample_->processes) {
    if (needs_users && !users_.contains(process.uid)) wanted.users.insert(process.uid);
  }
  if (page_) {
    wanted.opened = page_->id();
    wanted.command_lines.insert(page_->id());
  }
  return wanted;
}

}  // namespace volorn::ctl
