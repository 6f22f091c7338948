#pragma once

#include <string>

namespace volorn::waketide {

struct Note {
  bool is_last = false;    // nobody watches after it
  bool some_lost = false;  // a change before it has escaped the caller
};

// Takes a mark in the books of usage of the state file in `state_directory`: plug, charge and clocks as they
// are at this moment. Safe at any time, any number of times, and twice at once. Who holds the file up is
// waited for two seconds. Throws std::runtime_error for a mark that could not be kept; the books are unknown
// then.
void note(const std::string& state_directory, const Note& note);

}  // namespace volorn::waketide
