#pragma once

#include <string>

#include "volornctl/command.h"

namespace volorn::ctl {

// What a shell sources to complete the commands, options and values of a program, as its parser tells them.
// `shell`: bash, zsh or fish.
std::string completionScript(const CLI::App& program, const std::string& shell);

// Prints it. Help says nothing of this command: packages call it.
class CompletionCommand : public Command {
 public:
  CLI::App* addTo(CLI::App& program) override;
  void run(const Surroundings& surroundings) override;

 private:
  const CLI::App* program_ = nullptr;
  std::string shell_;
};

}  // namespace volorn::ctl
