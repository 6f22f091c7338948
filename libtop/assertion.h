#pragma once

namespace volorn {

// Tells a broken assertion on standard error and aborts, in every kind of build.
[[noreturn]] void assertionFailed(const char* function, int line, const char* expression);

}  // namespace volorn
