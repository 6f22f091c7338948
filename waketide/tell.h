#pragma once

#include <string>

namespace volorn::waketide {

// Writes one line to standard error, in one piece.
void tell(const std::string& text);

}  // namespace volorn::waketide
