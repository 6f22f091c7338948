#include "volornctl/terminal.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace volorn::ctl {
namespace {

// The other screen, the cursor hidden, long lines cut at the edge; and back.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr std::string_view kLeave = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

// What a signal handler needs to give the terminal back.
struct Held {
  int keyboard_fd;  // -1: none
  int screen_fd;
  termios before;
  termios during;
};
Held held = {};
volatile sig_atomic_t is_entered = 0;
volatile sig_atomic_t is_resized = 0;
volatile sig_atomic_t is_asked_to_stop = 0;

void send(std::string_view text) {
  // There is nobody to be told of a failure: the terminal itself has gone.
  if (write(held.screen_fd, text.data(), text.size()) < 0) return;
}

void enter() {
  is_entered = 1;
  if (held.keyboard_fd >= 0) tcsetattr(held.keyboard_fd, TCSANOW, &held.during);
  send(kEnter);
}

// Also called by handlers and at the exit. A handler that interrupts it does all of it once more.
void leave() {
  if (!is_entered) return;
  send(kLeave);
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

Terminal::Terminal(int keyboard_fd, Output& screen) : screen_(screen) {
  held = {.keyboard_fd = -1, .screen_fd = screen.fd(), .before = {}, .during = {}};
  if (tcgetattr(keyboard_fd, &held.before) == 0) {
    held.keyboard_fd = keyboard_fd;
    held.during = held.before;
    held.during.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    held.during.c_cc[VMIN] = 1;
    held.during.c_cc[VTIME] = 0;
  }
  // These two are waited for, so that neither is missed between a look and the wait.
  sigset_t waited_for;
  sigemptyset(&waited_for);
  sigaddset(&waited_for, SIGWINCH);
  sigaddset(&waited_for, SIGTSTP);
  sigprocmask(SIG_BLOCK, &waited_for, &mask_before_);
  static const bool is_left_at_exit [[maybe_unused]] = std::atexit(leave) == 0;
  takeSignals();
  enter();
}

Terminal::~Terminal() {
  leave();
  giveSignalsBack();
  sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
}

void Terminal::draw(const std::vector<std::string>& lines) {
  // Each line over the one that stood there, then nothing; no line end after the last, which would scroll.
  std::string text = "\x1b[H";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) text += "\n";
    text += lines[i] + "\x1b[K";
  }
  screen_.write(text + "\x1b[J");
}

Terminal::Event Terminal::waitUntil(std::chrono::steady_clock::time_point moment) {
  using std::chrono::nanoseconds;
  while (true) {
    const auto left = std::max<nanoseconds>(moment - std::chrono::steady_clock::now(), nanoseconds(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec timeout = {.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
    pollfd keyboard = {.fd = held.keyboard_fd, .events = POLLIN, .revents = 0};
    const int ready = ppoll(&keyboard, 1, &timeout, &mask_before_);
    if (std::exchange(is_asked_to_stop, 0)) {
      stop();
      return Event::kRedraw;
    }
    if (std::exchange(is_resized, 0)) return Event::kRedraw;
    if (ready > 0 && quitTyped()) return Event::kQuit;
    if (left == nanoseconds(0)) return Event::kElapsed;
  }
}

bool Terminal::quitTyped() {
  std::array<char, 64> keys = {};
  const ssize_t count = read(held.keyboard_fd, keys.data(), keys.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return false;
  if (count <= 0) return true;  // the terminal has gone
  return std::any_of(keys.data(), keys.data() + count, [](char key) { return key == 'q' || key == 'Q'; });
}

void Terminal::stop() {
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
  sigprocmask(SIG_UNBLOCK, &stopping, &mask);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  sigaction(SIGTSTP, &noted, nullptr);
  enter();
}

}  // namespace volorn::ctl
