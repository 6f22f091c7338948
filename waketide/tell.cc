#include "waketide/tell.h"

#include <unistd.h>

namespace volorn::waketide {

void tell(const std::string& text) {
  const std::string line = "waketide: " + text + "\n";
  // Nobody is left to be told of a failure.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace volorn::waketide
