#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "volornctl/live/frame.h"
#include "volornctl/live/lookups.h"
#include "volornctl/live/machine_lines.h"
#include "volornctl/live/process_list.h"
#include "volornctl/live/process_page.h"
#include "volornctl/live/replay_source.h"
#include "volornctl/live/sample.h"
#include "volornctl/output.h"

namespace volorn::ctl {

// The screen of `top`: what the keys do, and what is shown. It neither reads keys nor draws nor samples, so
// that samples of any kind may be shown.
class TopScreen {
 public:
  // `unicode`: whether the terminal shows more than ASCII.
  TopScreen(ProcessChoice choice, double interval_seconds, bool unicode);

  void take(std::shared_ptr<const Sample> sample);
  void take(const Found& found);

  // Of a replay, before its sample.
  void take(const Replayed& replayed);

  // Where the key pressed last leads in a replay.
  std::optional<Move> takeMove() { return std::exchange(move_, std::nullopt); }

  // False when it is to be left.
  bool press(const Key& key);

  // As of now, and the rows that keys move by are those of the frame drawn last.
  Frame draw(const Room& room);

  double intervalSeconds() const { return interval_seconds_; }
  bool isPaused() const { return is_paused_; }

  // What the frame drawn last lacks, and what in it may be another by now.
  Wanted wanted() const;

 private:
  enum class Mode { kList, kProcess, kHelp, kFilter, kUser, kTime, kFind };

  bool pressInList(const Key& key);
  bool pressCharacter(char key);
  void pressInPrompt(const Key& key);
  void pressInPage(const Key& key);
  bool pressInReplay(const Key& key);
  void ask(Mode mode, std::string typed);
  void answer();
  bool moveTo(const Key& key);
  void chooseOrder(Column order);
  void moveOrder(int way);
  void changeInterval(int way);
  void relist();
  void openSelected();

  void addHead(Frame& frame, const Room& room) const;
  void addStrip(Frame& frame, const Room& room) const;
  void addList(Frame& frame, const Room& room);
  FrameLine headingLine(const std::vector<Column>& columns, std::size_t max_columns) const;
  FrameLine rowLine(std::size_t place, const std::vector<Column>& columns, std::size_t max_columns) const;
  std::array<std::size_t, kColumns.size()> columnWidths(std::size_t begin, std::size_t end) const;
  std::string commandText(const ProcessRow& row) const;
  std::string promptText() const;
  FrameLine titleLine() const;
  std::string replayText() const;
  std::string plain(std::string text) const;

  ProcessChoice choice_;
  double interval_seconds_;
  bool unicode_;
  bool is_paused_ = false;
  bool shows_command_lines_ = false;
  Mode mode_ = Mode::kList;
  std::string typed_;
  std::string message_;

  std::optional<Replayed> replayed_;  // of a replay
  std::optional<Move> move_;
  std::string sought_;  // the name that was searched for last

  std::shared_ptr<const Sample> sample_;
  ProcessList list_;
  MachineHistory history_;
  UserNames users_;
  std::map<ProcessId, std::string> command_lines_;

  std::optional<ProcessId> selected_;  // none: nobody has moved to any
  std::size_t place_ = 0;              // of the selected row
  std::size_t first_row_ = 0;          // on the screen
  std::size_t rows_ = 1;               // of the list on the screen
  std::array<std::size_t, kColumns.size()> widths_ = {};
  std::optional<ProcessPage> page_;
  std::size_t first_line_ = 0;  // of the page or the help
  std::size_t page_lines_ = 0;
};

}  // namespace volorn::ctl
