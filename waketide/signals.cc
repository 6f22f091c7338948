#include "waketide/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace volorn::waketide {
namespace {

extern "C" void endWithSuccess(int /*signal*/) {
  _exit(0);
}

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

struct SignalName {
  int number;
  const char* name;
};

// Those that end a process.
constexpr SignalName kSignalNames[] = {
    {SIGABRT, "SIGABRT"}, {SIGALRM, "SIGALRM"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
    {SIGHUP, "SIGHUP"},   {SIGILL, "SIGILL"},   {SIGINT, "SIGINT"},   {SIGKILL, "SIGKILL"},
    {SIGPIPE, "SIGPIPE"}, {SIGPOLL, "SIGPOLL"}, {SIGPROF, "SIGPROF"}, {SIGPWR, "SIGPWR"},
    {SIGQUIT, "SIGQUIT"}, {SIGSEGV, "SIGSEGV"}, {SIGSYS, "SIGSYS"},   {SIGTERM, "SIGTERM"},
    {SIGTRAP, "SIGTRAP"}, {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}, {SIGVTALRM, "SIGVTALRM"},
    {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
};

}  // namespace

std::string signalName(int number) {
  const auto* const row = std::ranges::find(kSignalNames, number, &SignalName::number);
  return row == std::end(kSignalNames) ? "signal " + std::to_string(number) : row->name;
}

Signals::Signals() {
  sigset_t set = stopSignals();
  sigaddset(&set, SIGCHLD);
  sigprocmask(SIG_BLOCK, &set, &mask_before_);
  // Whoever started us may have had them ignored, and an ignored signal never reaches the descriptor.
  signal(SIGTERM, endWithSuccess);
  signal(SIGINT, endWithSuccess);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGPIPE, SIG_IGN);  // standard error may be a pipe that nobody reads any more
  fd_ = linux_host::FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
}

bool Signals::takeStop() {
  bool stop = false;
  signalfd_siginfo info = {};
  while (read(fd_.get(), &info, sizeof info) == sizeof info) stop = stop || info.ssi_signo != SIGCHLD;
  return stop;
}

void Signals::restore() const {
  for (const int number : {SIGTERM, SIGINT, SIGPIPE}) signal(number, SIG_DFL);
  sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
}

Signals::EndAtOnce::EndAtOnce() {
  const sigset_t set = stopSignals();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

Signals::EndAtOnce::~EndAtOnce() {
  const sigset_t set = stopSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace volorn::waketide
