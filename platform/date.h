#pragma once

#include <memory>

namespace volorn {

// Seconds from 1 January 1970 to the reference date, 1 January 2001, both at 00:00:00 UTC.
inline constexpr double kReferenceDateSecondsSince1970 = 978307200.0;

// The platform's absolute time: a double count of seconds since the reference date. Never changed once made.
class Date {
 public:
  static constexpr Date fromSecondsSince1970(double seconds) {
    return Date(seconds - kReferenceDateSecondsSince1970);
  }
  static constexpr Date fromSecondsSinceReferenceDate(double seconds) { return Date(seconds); }

  constexpr double secondsSinceReferenceDate() const { return seconds_; }
  constexpr double secondsSince1970() const { return seconds_ + kReferenceDateSecondsSince1970; }

  // Positive when this date is the later one.
  constexpr double secondsSince(const Date& other) const { return seconds_ - other.seconds_; }

  friend constexpr bool operator==(const Date&, const Date&) = default;

 private:
  explicit constexpr Date(double seconds) : seconds_(seconds) {}

  double seconds_;
};

// Dates are shared by reference; null stands for no date.
using DateRef = std::shared_ptr<const Date>;

}  // namespace volorn
