#include "volornctl/text/curses_terminal.h"

namespace volorn::ctl {

bool CursesTerminal::isBuilt() {
  return false;
}

std::unique_ptr<CursesTerminal> CursesTerminal::open(int /*keyboard_fd*/, Output& /*output*/,
                                                     bool /*has_colour*/) {
  return nullptr;
}

}  // namespace volorn::ctl
