#include "libtop/assertion.h"

#include <cstdio>
#include <cstdlib>

namespace volorn {

void assertionFailed(const char* function, int line, const char* expression) {
  std::fprintf(stderr, "%s: libtop:%d: assertion failed: %s\n", function, line, expression);
  std::abort();
}

}  // namespace volorn
