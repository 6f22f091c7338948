#pragma once

#include <chrono>
#include <memory>

#include "volornctl/output.h"
#include "volornctl/top_figures.h"

namespace volorn::ctl {

// How figures are shown that are followed by others.
class TopView {
 public:
  virtual ~TopView() = default;

  virtual void show(TopFigures figures) = 0;

  // False when nobody wants to see more.
  virtual bool waitUntil(std::chrono::steady_clock::time_point moment) = 0;

  // After the last figures.
  virtual void end() {}
};

// One line of JSON for each.
std::unique_ptr<TopView> makeJsonView(Output& output);

// The screen drawn again where the output is a terminal, blocks below each other elsewhere.
std::unique_ptr<TopView> makeTextView(int keyboard_fd, Output& output, bool colour);

}  // namespace volorn::ctl
