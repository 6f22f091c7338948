#include "volornctl/text/held_terminal.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace volorn::ctl {
namespace {

// What a signal handler needs to give the terminal back.
struct Held {
  int keyboard_fd;  // -1: none
  int screen_fd;
  termios before;
  std::array<char, 256> leave_text;
  std::size_t leave_length;
};
Held held = {};
volatile sig_atomic_t is_entered = 0;
volatile sig_atomic_t is_resized = 0;
volatile sig_atomic_t is_asked_to_stop = 0;

// Also called by handlers and at the exit. A handler that interrupts it does all of it once more.
void leave() {
  if (!is_entered) return;
  // There is nobody to be told of a failure: the terminal itself has gone.
  [[maybe_unused]] const ssize_t written = write(held.screen_fd, held.leave_text.data(), held.leave_length);
  if (held.keyboard_fd >= 0) tcsetattr(held.keyboard_fd, TCSANOW, &held.before);
  is_entered = 0;
}

void leaveAndEnd(int /*signal*/) {
  leave();
  _exit(0);
}

void leaveAndDie(int signal) {
  leave();
  std::signal(signal, SIG_DFL);
  raise(signal);
}

void noteResize(int /*signal*/) {
  is_resized = 1;
}

void noteStop(int /*signal*/) {
  is_asked_to_stop = 1;
}

// Null for signals that do not end the process.
void (*handlerOf(int signal))(int) {
  switch (signal) {
    case SIGINT:
    case SIGTERM:
    case SIGHUP:
      return leaveAndEnd;
    case SIGWINCH:
      return noteResize;
    case SIGTSTP:
      return noteStop;
    case SIGTTIN:
    case SIGTTOU:
    case SIGCHLD:
    case SIGCONT:
    case SIGURG:
      return nullptr;
    default:
      return leaveAndDie;
  }
}

std::array<struct sigaction, NSIG> dispositions_before = {};

// What the process was started to ignore, and what a sanitizer or a profiler waits for, stays as it is.
void takeSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction& before = dispositions_before.at(static_cast<std::size_t>(signal));
    struct sigaction action = {};
    action.sa_handler = handlerOf(signal);
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    const bool is_free = sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL;
    if (is_free && action.sa_handler) sigaction(signal, &action, nullptr);
  }
}

// For those that nobody can take, SIGKILL among them, it does nothing.
void giveSignalsBack() {
  for (int signal = 1; signal < NSIG; ++signal) {
    sigaction(signal, &dispositions_before.at(static_cast<std::size_t>(signal)), nullptr);
  }
}

}  // namespace

HeldTerminal::HeldTerminal(int keyboard_fd, int screen_fd, std::string_view leave_text) {
  held = {.keyboard_fd = -1, .screen_fd = screen_fd, .before = {}, .leave_text = {}, .leave_length = 0};
  held.leave_length = leave_text.copy(held.leave_text.data(), held.leave_text.size());
  if (tcgetattr(keyboard_fd, &held.before) == 0) held.keyboard_fd = keyboard_fd;
  // These two are waited for, so that neither is missed between a look and the wait.
  sigset_t waited_for;
  sigemptyset(&waited_for);
  sigaddset(&waited_for, SIGWINCH);
  sigaddset(&waited_for, SIGTSTP);
  pthread_sigmask(SIG_BLOCK, &waited_for, &mask_before_);
  static const bool is_left_at_exit [[maybe_unused]] = std::atexit(leave) == 0;
  takeSignals();
  is_entered = 1;
}

HeldTerminal::~HeldTerminal() {
  leave();
  giveSignalsBack();
  pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
}

HeldTerminal::Event HeldTerminal::wait(const std::vector<int>& fds) {
  std::vector<pollfd> polled = {{.fd = held.keyboard_fd, .events = POLLIN, .revents = 0}};
  for (const int fd : fds) polled.push_back({.fd = fd, .events = POLLIN, .revents = 0});
  const int ready = ppoll(polled.data(), polled.size(), nullptr, &mask_before_);
  const bool has_keys = ready > 0 && polled[0].revents != 0;
  return {.is_resized = std::exchange(is_resized, 0) != 0,
          .is_to_stop = std::exchange(is_asked_to_stop, 0) != 0,
          .has_keys = has_keys,
          .is_gone = has_keys && (polled[0].revents & POLLIN) == 0};
}

void HeldTerminal::stop() {
  leave();
  // By the default action, which does nothing where nobody is left to continue the process.
  const struct sigaction usual = {};
  struct sigaction noted = {};
  sigaction(SIGTSTP, &usual, &noted);
  raise(SIGTSTP);
  sigset_t stopping;
  sigset_t mask;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGTSTP);
  pthread_sigmask(SIG_UNBLOCK, &stopping, &mask);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  sigaction(SIGTSTP, &noted, nullptr);
  is_entered = 1;
}

}  // namespace volorn::ctl
