#pragma once

#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "volornctl/output.h"

namespace volorn::ctl {

// A terminal whose whole screen is drawn again and again, by this program alone: a screen of its own without
// a cursor, and a keyboard that shows nothing of what is typed. However the process ends, but for SIGKILL,
// the terminal is left as it was. SIGINT, SIGTERM and SIGHUP end the process at once with status 0; signals
// that the process was started to ignore stay ignored. When SIGTSTP (Ctrl-Z) stops it, the terminal is as
// before meanwhile. There may be one of these at a time.
class Terminal {
 public:
  enum class Event {
    kElapsed,
    kRedraw,  // the size has changed, or the process had been stopped
    kQuit,    // q was typed
  };

  // Nothing is read from a keyboard that is no terminal.
  Terminal(int keyboard_fd, Output& screen);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void draw(const std::vector<std::string>& lines);

  Event waitUntil(std::chrono::steady_clock::time_point moment);

 private:
  bool quitTyped();
  void stop();

  Output& screen_;
  sigset_t mask_before_ = {};
};

}  // namespace volorn::ctl
