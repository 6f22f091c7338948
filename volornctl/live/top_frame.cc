// What the screen of `top` shows. What its keys do is in top_screen.cc.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "volornctl/live/top_screen.h"
#include "volornctl/text/columns.h"
#include "volornctl/text/table.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr std::size_t kLabelColumns = 12;
constexpr std::size_t kLeastGraphColumns = 8;
constexpr double kBusyPercent = 90;

struct HelpLine {
  const char* keys;  // null: not of a key
  const char* text;
};

constexpr std::array kHelp = {
    HelpLine{"arrows",
             "move the selected row, which follows its process, as do Page Up, Page Down, Home and End"},
    HelpLine{"Enter", "everything about the selected process; Escape comes back"},
    HelpLine{"P M T N", "order by processors, memory, time, process id"},
    HelpLine{"< >", "order by the column before or behind"},
    HelpLine{"R", "turn the order round"},
    HelpLine{"/", "only processes whose names hold what is typed; Escape ends it"},
    HelpLine{"u", "only processes of a user, by name or number; nothing: of all"},
    HelpLine{"H", "show or hide the kernel's own threads"},
    HelpLine{"t", "children below their parents"},
    HelpLine{"c", "command lines in place of names"},
    HelpLine{"Space", "pause"},
    HelpLine{"+ -", "a longer or a shorter time between samples"},
    HelpLine{"?", "this help"},
    HelpLine{"q", "leave"},
    HelpLine{nullptr, ""},
    HelpLine{nullptr, "100 % is one processor. K, M, G are 1024, 1024 K, 1024 M bytes."},
    HelpLine{nullptr, "A dash: not known, or not yet. Private: resident and nobody else's."},
    HelpLine{nullptr, "Blocked: waits for a device, uninterruptible. Halted: a zombie."},
    HelpLine{nullptr, "! marks what is busy, short or hot."},
};

constexpr std::array kReplayHelp = {
    HelpLine{"arrows", "Left and Right: a sample back or on"},
    HelpLine{"[ ]", "a minute back or on"},
    HelpLine{"{ }", "an hour back or on"},
    HelpLine{"g", "go to a time (UTC)"},
    HelpLine{"f", "on to where a process of this name ran; n: to the next"},
    HelpLine{"b", "on to where the processors were busy"},
    HelpLine{"Space", "play, at + and - faster or slower"},
    HelpLine{nullptr,
             "The strip is all that was recorded. z: asleep, x: nothing was recorded, !: the clock was set."},
    HelpLine{nullptr, ""},
};

template <typename Help>
void addHelp(std::vector<FrameLine>& lines, const Help& help, std::size_t max_columns) {
  constexpr std::size_t kKeyColumns = 9;
  for (const HelpLine& line : help) {
    const std::size_t beside = line.keys ? kKeyColumns : 0;
    std::string keys = line.keys ? line.keys : "";
    for (std::string& text : wrapped(line.text, max_columns - std::min(max_columns, beside))) {
      lines.push_back({{.text = padded(std::exchange(keys, ""), beside), .style = Style::kStrong},
                       {.text = std::move(text)}});
    }
  }
}

// Cuts the line where the screen ends.
void cut(FrameLine& line, std::size_t max_columns) {
  for (std::size_t i = 0; i < line.size(); ++i) {
    const std::size_t columns = columnsOf(line[i].text);
    if (columns > max_columns) {
      line[i].text = std::string(beginning(line[i].text, max_columns));
      line.resize(i + 1);
      return;
    }
    max_columns -= columns;
  }
}

}  // namespace

std::string TopScreen::plain(std::string text) const {
  if (unicode_) return text;
  std::string ascii;
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x80) ascii += byte;
    if (value >= 0xC0) ascii += '?';
  }
  return ascii;
}

// What is unusual comes first, so that a narrow screen has it.
FrameLine TopScreen::titleLine() const {
  std::string text;
  if (!choice_.name.empty()) text += "  name: " + escaped(choice_.name);
  if (!choice_.user.empty()) text += "  user: " + escaped(choice_.user);
  if (choice_.uid) text += "  user: " + userText(*choice_.uid, users_);
  if (choice_.order != Column::kCpu) text += std::string("  by ") + traitsOf(choice_.order).name;
  text += "  " + (sample_ ? utcTime(sample_->at) : "taking the first sample");
  if (replayed_) text += replayText();
  if (!replayed_ || !is_paused_) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.7g", interval_seconds_);
    text += std::string("  every ") + seconds + " s";
  }
  return {{.text = "volornctl top", .style = Style::kStrong},
          {.text = is_paused_ && !replayed_ ? "  PAUSED" : "", .style = Style::kAlarm},
          {.text = plain(std::move(text)), .style = Style::kStrong}};
}

void TopScreen::addHead(Frame& frame, const Room& room) const {
  const std::size_t most_lines = std::max<std::size_t>(room.rows / 3, 2);
  frame.lines.push_back(titleLine());
  if (!sample_) return;
  std::vector<MachineLine> lines = machineLines(*sample_);
  if (lines.size() + 1 > most_lines)
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(most_lines) - 1, lines.end());
  const auto text_of = [](const MachineLine& line, std::size_t max_columns) {
    std::string text;
    for (const std::string& field : line.fields) {
      const std::string more = (text.empty() ? "" : "  ") + field;
      if (columnsOf(text) + columnsOf(more) > max_columns) break;
      text += more;
    }
    return text;
  };
  // Graphs begin below each other, where the longest text ends, but have a quarter of the room at least.
  const std::size_t quarter = room.columns / 4;
  const std::size_t not_text = kLabelColumns + (quarter >= kLeastGraphColumns ? quarter + 2 : 0);
  const std::size_t most_text = room.columns - std::min(room.columns, not_text);
  std::size_t text_columns = 0;
  for (const MachineLine& line : lines) {
    text_columns = std::max(text_columns, columnsOf(text_of(line, most_text)));
  }
  const std::size_t taken = kLabelColumns + text_columns + 2;
  const std::size_t graph_columns = room.columns > taken ? room.columns - taken : 0;
  for (const MachineLine& line : lines) {
    const std::string label = std::string(line.label) + (line.is_alarming ? "!" : "");
    const Style style = line.is_alarming ? Style::kAlarm : Style::kStrong;
    FrameLine& shown =
        frame.lines.emplace_back(FrameLine{{.text = padded(label, kLabelColumns), .style = style},
                                           {.text = padded(text_of(line, text_columns), text_columns + 2),
                                            .style = line.is_alarming ? Style::kAlarm : Style::kPlain}});
    if (graph_columns >= kLeastGraphColumns) {
      shown.push_back({.text = history_.graphOf(line, graph_columns, unicode_), .style = Style::kGraph});
    }
  }
}

std::string TopScreen::commandText(const ProcessRow& row) const {
  std::string text = cellText(*row.process, Column::kCommand, sample_->at, users_);
  if (shows_command_lines_) {
    const auto line = command_lines_.find(idOf(*row.process));
    if (line != command_lines_.end() && !line->second.empty()) text = escaped(line->second);
  }
  if (row.depth == 0) return text;
  constexpr std::size_t kDeepest = 20;  // deeper ones would leave no room for the name
  return std::string(2 * (std::min(row.depth, kDeepest) - 1), ' ') + (unicode_ ? "└ " : "` ") + text;
}

// Wide enough for each number in the rows.
std::array<std::size_t, kColumns.size()> TopScreen::columnWidths(std::size_t begin, std::size_t end) const {
  std::array<std::size_t, kColumns.size()> widths = {};
  for (std::size_t i = 0; i < widths.size(); ++i) {
    const ColumnTraits& column = kColumns[i];
    const std::size_t sign = static_cast<Column>(i) == choice_.order ? 1 : 0;
    widths[i] = std::max(column.width, std::string_view(column.heading).size() + sign);
    for (std::size_t place = begin; !column.is_text && place < end; ++place) {
      const auto text = cellText(*list_[place].process, static_cast<Column>(i), sample_->at, users_);
      widths[i] = std::max(widths[i], columnsOf(text));
    }
  }
  return widths;
}

FrameLine TopScreen::headingLine(const std::vector<Column>& columns, std::size_t max_columns) const {
  FrameLine line;
  for (const Column column : columns) {
    const ColumnTraits& traits = traitsOf(column);
    const std::size_t width = widths_.at(static_cast<std::size_t>(column));
    const bool is_order = column == choice_.order;
    const bool is_last = column == Column::kCommand;
    const bool is_falling = traits.most_first != choice_.is_reversed;
    std::string sign = is_falling ? "▼" : "▲";
    if (!unicode_) sign = is_falling ? "v" : "^";
    std::string text = traits.heading + (is_order ? sign : "");
    if (!is_last) text = padded(text, width, !traits.is_text) + " ";
    line.push_back({.text = std::move(text), .style = is_order ? Style::kSelected : Style::kHeading});
  }
  std::size_t taken = 0;
  for (const Span& span : line) taken += columnsOf(span.text);
  line.push_back(
      {.text = std::string(max_columns - std::min(max_columns, taken), ' '), .style = Style::kHeading});
  return line;
}

FrameLine TopScreen::rowLine(std::size_t place, const std::vector<Column>& columns,
                             std::size_t max_columns) const {
  const ProcessRow& row = list_[place];
  const bool is_selected = place == place_;
  const bool is_busy = row.process->cpu_percent.value_or(0) >= kBusyPercent;
  const Style usual = is_selected ? Style::kSelected : is_busy ? Style::kBusy : Style::kPlain;
  std::string text;
  for (const Column column : columns) {
    if (column == Column::kCommand) {
      text += commandText(row);
    } else {
      const std::size_t width = widths_.at(static_cast<std::size_t>(column));
      std::string cell = cellText(*row.process, column, sample_->at, users_);
      // Only texts are longer than their columns.
      if (columnsOf(cell) > width) cell = padded(cell, width - 1) + "+";
      text += padded(cell, width, !traitsOf(column).is_text);
      text += column == Column::kCpu && is_busy ? "!" : " ";
    }
  }
  return {{.text = padded(plain(std::move(text)), max_columns), .style = usual}};
}

void TopScreen::addList(Frame& frame, const Room& room) {
  const std::size_t above = frame.lines.size() + 1;  // the headings
  rows_ = room.rows > above + 1 ? room.rows - above - 1 : 1;
  // The selected row stays on the screen, and no room below the last row is wasted.
  if (place_ < first_row_) first_row_ = place_;
  if (place_ >= first_row_ + rows_) first_row_ = place_ - rows_ + 1;
  first_row_ = std::min(first_row_, list_.size() > rows_ ? list_.size() - rows_ : 0);
  const std::size_t end = std::min(list_.size(), first_row_ + rows_);
  widths_ = columnWidths(first_row_, end);
  const std::vector<Column> columns = fittingColumns(widths_, room.columns);
  frame.lines.push_back(headingLine(columns, room.columns));
  for (std::size_t place = first_row_; place < end; ++place) {
    frame.lines.push_back(rowLine(place, columns, room.columns));
  }
}

std::string TopScreen::promptText() const {
  switch (mode_) {
    case Mode::kFilter:
      return "Name: " + escaped(typed_) + "_";
    case Mode::kUser:
      return "User: " + escaped(typed_) + "_";
    case Mode::kTime:
      return "Time, as 2026-11-23T04:05:06Z or 04:05 UTC: " + escaped(typed_) + "_";
    case Mode::kFind:
      return "Ran: " + escaped(typed_) + "_";
    case Mode::kProcess:
      return std::string(is_paused_ ? "PAUSED  " : "") + "Escape: back  Up, Down, Page: move  Space: pause";
    case Mode::kHelp:
      return "any key: back";
    case Mode::kList:
      break;
  }
  if (!message_.empty()) return message_;
  std::string text = "?: help  Enter: process  /: name  u: user  t: tree  c: command lines  q: leave";
  if (replayed_)
    text = "?: help  Left Right [ ] { }: move  g: time  f n: find  b: busy  Space: play  q: leave";
  if (list_.empty() && sample_) text = "no process is so; " + text;
  return text;
}

Frame TopScreen::draw(const Room& room) {
  Frame frame;
  const bool is_page = mode_ == Mode::kProcess || mode_ == Mode::kHelp;
  if (is_page) {
    std::vector<FrameLine> lines;
    if (page_) {
      const auto command_line = command_lines_.find(page_->id());
      lines = page_->lines(room.columns, unicode_, users_,
                           command_line == command_lines_.end() ? "" : command_line->second);
    } else {
      if (replayed_) addHelp(lines, kReplayHelp, room.columns);
      addHelp(lines, kHelp, room.columns);
    }
    rows_ = room.rows > 1 ? room.rows - 1 : 1;
    page_lines_ = lines.size();
    for (std::size_t i = first_line_; i < lines.size() && i < first_line_ + rows_; ++i) {
      for (Span& span : lines[i]) span.text = plain(std::move(span.text));
      frame.lines.push_back(std::move(lines[i]));
    }
  } else {
    addHead(frame, room);
    if (replayed_) addStrip(frame, room);
    if (sample_) addList(frame, room);
  }
  frame.lines.resize(std::max<std::size_t>(room.rows, 1) - 1);
  frame.lines.push_back({{.text = plain(promptText()), .style = Style::kFaint}});
  for (FrameLine& line : frame.lines) cut(line, room.columns);
  return frame;
}

}  // namespace volorn::ctl
