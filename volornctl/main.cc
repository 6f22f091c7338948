#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "platform/linux/linux_clock.h"
#include "volornctl/program.h"

namespace {

bool wantsColour() {
  const char* no_colour = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (!no_colour || *no_colour == '\0');
}

}  // namespace

int main(int argc, char** argv) {
  // A closed pipe is then told by the write to it.
  std::signal(SIGPIPE, SIG_IGN);
  volorn::ctl::Output output(STDOUT_FILENO);
  volorn::ctl::Output errors(STDERR_FILENO);
  return volorn::ctl::runProgram(
      argc, argv,
      {.output = output,
       .errors = errors,
       .colour = wantsColour(),
       .state_directory = {},
       .moment = {volorn::linux_host::LinuxClock().now(), volorn::ctl::systemTimeZone()}});
}
