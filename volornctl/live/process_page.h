#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "volornctl/live/frame.h"
#include "volornctl/live/lookups.h"
#include "volornctl/live/sample.h"

namespace volorn::ctl {

// All that is known of one process, from when its page is opened.
class ProcessPage {
 public:
  explicit ProcessPage(const ProcessFigures& process) : figures_(process) {}

  ProcessId id() const { return idOf(figures_); }
  void take(const Sample& sample);
  void take(const OpenedProcess& opened);

  // What comes does not follow what came: the graphs begin anew.
  void forgetPast() { past_.clear(); }

  // `command_line`: empty where there is none, or none is known yet.
  std::vector<FrameLine> lines(std::size_t max_columns, bool unicode, const UserNames& users,
                               const std::string& command_line) const;

 private:
  void addFigures(std::vector<FrameLine>& lines, std::size_t max_columns, const UserNames& users) const;
  void addGraphs(std::vector<FrameLine>& lines, std::size_t max_columns, bool unicode) const;
  void addThreads(std::vector<FrameLine>& lines) const;
  void addRegions(std::vector<FrameLine>& lines) const;

  ProcessFigures figures_;
  Date now_ = Date::fromSecondsSince1970(0);
  bool has_ended_ = false;
  std::deque<ProcessFigures> past_;
  std::optional<OpenedProcess> opened_;
};

}  // namespace volorn::ctl
