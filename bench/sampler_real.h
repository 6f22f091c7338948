#pragma once

namespace volorn {

// Measures samples of this machine, on which so many idle processes are started beforehand, in turn with
// other ways to the same figures, and prints medians. Returns a program's exit status.
int measureRealSamples(int processes, int rounds);

}  // namespace volorn
