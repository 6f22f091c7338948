#pragma once

#include <cfloat>

namespace volorn {

// A value in its own kind's precision. Where the 387 computes, what stands in one of its registers is rounded
// to a double's digits by arithmetic alone (cmake/volorn.cmake), so that integers that have become floating
// point, and products of floats, carry digits that their kind does not have. Only what is stored loses them.
template <typename Float>
inline Float rounded(Float value) {
#if FLT_EVAL_METHOD == 0
  return value;
#else
  volatile Float stored = value;
  return stored;
#endif
}

}  // namespace volorn
