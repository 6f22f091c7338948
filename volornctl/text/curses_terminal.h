#pragma once

#include <memory>
#include <vector>

#include "volornctl/live/frame.h"
#include "volornctl/output.h"

namespace volorn::ctl {

// A terminal drawn on with ncurses, a screen of its own without a cursor, and its keys. It is given back as
// HeldTerminal says. There may be one at a time.
class CursesTerminal {
 public:
  struct Event {
    std::vector<Key> keys;
    bool is_gone = false;  // nobody is left to see it
  };

  // Whether the program was built with ncurses.
  static bool isBuilt();

  // Null where that is not so, where the output is no terminal, and for one that cannot move its cursor.
  static std::unique_ptr<CursesTerminal> open(int keyboard_fd, Output& output, bool has_colour);

  virtual ~CursesTerminal() = default;

  // Whether it shows characters beyond ASCII: by the locale of the environment.
  virtual bool isUnicode() const = 0;

  virtual Room room() const = 0;
  virtual void draw(const Frame& frame) = 0;

  // Until there is a key, the size has changed, or one of the descriptors is readable. Ctrl-Z stops the
  // process within.
  virtual Event wait(const std::vector<int>& fds) = 0;
};

}  // namespace volorn::ctl
