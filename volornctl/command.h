#pragma once

#include <CLI/CLI.hpp>

#include "volornctl/surroundings.h"

namespace volorn::ctl {

inline constexpr const char* kJsonHelp = "Print JSON, for scripts";

// One subcommand. Each is a class in a file of its own, and is made in makeCommands() of program.cc.
class Command {
 public:
  virtual ~Command() = default;

  // Adds the subcommand with its options to the command line, and returns it.
  virtual CLI::App* addTo(CLI::App& program) = 0;

  // Does it, with the options parsed. Results go to the output and nowhere else; a failure is an exception
  // whose text is for people, StateUnreadable with kNothingYet where there is no data yet.
  virtual void run(const Surroundings& surroundings) = 0;

  // What the program ends with after a run that did not throw.
  virtual int exitStatus() const { return 0; }
};

}  // namespace volorn::ctl
