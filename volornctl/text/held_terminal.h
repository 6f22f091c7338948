#pragma once

#include <signal.h>

#include <string_view>
#include <vector>

namespace volorn::ctl {

// A terminal that a program draws on, given back however the process ends, but for SIGKILL. SIGINT, SIGTERM
// and SIGHUP end the process at once with status 0; signals that the process was started to ignore stay
// ignored. There may be one of these at a time.
class HeldTerminal {
 public:
  struct Event {
    bool is_resized;
    bool is_to_stop;  // Ctrl-Z: stop() is to be called
    bool has_keys;
    bool is_gone;  // there will be no keys any more
  };

  // To be made before anything is changed. `leave_text`: what gives the screen back. Nothing is awaited from
  // a keyboard that is no terminal.
  HeldTerminal(int keyboard_fd, int screen_fd, std::string_view leave_text);
  ~HeldTerminal();
  HeldTerminal(const HeldTerminal&) = delete;
  HeldTerminal& operator=(const HeldTerminal&) = delete;

  // Until there is anything, or one of the descriptors is readable.
  Event wait(const std::vector<int>& fds);

  // Gives the terminal back and stops the process; returns when it goes on. Then all is to be set and drawn
  // anew.
  void stop();

 private:
  sigset_t mask_before_ = {};
};

}  // namespace volorn::ctl
