#pragma once

#include <memory>

#include "volornctl/live/process_list.h"
#include "volornctl/live/replay_source.h"
#include "volornctl/live/sample_source.h"
#include "volornctl/output.h"
#include "volornctl/text/curses_terminal.h"

namespace volorn::ctl {

// Shows the samples on the terminal until its user leaves it, or the source has come to its end; then the
// last that was shown stays below the prompt. `lookups`: null where nothing can be looked up.
void runScreen(std::unique_ptr<CursesTerminal> terminal, Output& output, SampleSource& source,
               LookupThread* lookups, const ProcessChoice& choice, double interval_seconds);

// The same of a record, which comes to no end.
void runReplay(std::unique_ptr<CursesTerminal> terminal, ReplaySource& source, LookupThread* lookups,
               const ProcessChoice& choice, double interval_seconds);

}  // namespace volorn::ctl
