#pragma once

#include <CLI/CLI.hpp>

#include "volornctl/live/process_list.h"

namespace volorn::ctl {

// -p and -u, by which processes are chosen.
void addPidOption(CLI::App& command, ProcessChoice& choice);
void addUserOption(CLI::App& command, ProcessChoice& choice);

}  // namespace volorn::ctl
