#include "waketide/mend.h"

#include <gtest/gtest.h>

#include <limits>

namespace volorn::waketide {
namespace {

constexpr double kHour = 3600.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(MendTest, WhichPlansAreCleared) {
  struct {
    const char* what;
    double hours_ahead;
    bool synchronised;
    double hours_up;
    bool cleared;
  } const rows[] = {
      {"the farthest that a run plans", 48, true, 1000, false},
      {"farther", 48.001, true, 0, true},
      {"made in a year to come", 8760, true, 1, true},
      {"for never", kInfinity, true, 1, true},
      {"no number, which is on time", std::numeric_limits<double>::quiet_NaN(), true, 1000, false},
      {"past", -8760, true, 1000, false},
      {"booted in 1970 and waiting for its time", 500'000, false, 47.999, false},
      {"booted in 1970, where nobody knows the time", 500'000, false, 48, true},
      {"an ordinary one there", 30, false, 1000, false},
  };
  const Date now = Date::fromSecondsSinceReferenceDate(817'000'000.0);
  for (const auto& row : rows) {
    const Date plan = Date::fromSecondsSinceReferenceDate(817'000'000.0 + row.hours_ahead * kHour);
    EXPECT_EQ(isToBeCleared(plan, now, {row.synchronised, row.hours_up * kHour}), row.cleared) << row.what;
  }
}

}  // namespace
}  // namespace volorn::waketide
