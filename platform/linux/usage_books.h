#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace volorn::linux_host {

// What is seen of the battery at one moment. The two clocks part while the machine is asleep:
// CLOCK_MONOTONIC stands still then, CLOCK_BOOTTIME does not. No other clock is asked, since it may be set.
struct UsageMark {
  std::string boot_id = {};
  std::int64_t monotonic_ns = 0;
  std::int64_t boottime_ns = 0;
  std::optional<bool> plugged_in = {};  // none where nothing tells
  bool has_battery = true;
  bool is_full = false;
  bool is_last = false;    // nobody watches after this one: the machine is shut down
  bool some_lost = false;  // a mark before this one was due and could not be kept
};

// On battery since the last full charge.
struct UsageSums {
  std::int64_t usage_ns = 0;    // awake
  std::int64_t standby_ns = 0;  // asleep

  friend bool operator==(const UsageSums&, const UsageSums&) = default;
};

// The newest mark, and the sums at it.
struct UsageBooks {
  std::string boot_id = {};
  std::int64_t monotonic_ns = 0;
  std::int64_t boottime_ns = 0;
  std::optional<bool> plugged_in = {};
  bool is_last = false;
  bool fully_charged_once = false;  // since the books began
  // None until a full charge is seen, and again after an interval that nobody can know.
  std::optional<UsageSums> sums = {};

  friend bool operator==(const UsageBooks&, const UsageBooks&) = default;
};

// The books in one line: both clocks, plugged in, last, fully charged once, usage, standby and the boot's id;
// -1 stands for none. As in
//   3600000000000 7200000000000 0 0 1 60000000000 3600000000000 8e46a9b2-0c6a-4f0e-9c3b-2a5d3f1c7e55
std::string textOf(const UsageBooks& books);

// None for anything else.
std::optional<UsageBooks> parseUsageBooks(std::string_view text);

// The books with one more mark. None for books that have not begun.
UsageBooks withMark(const std::optional<UsageBooks>& books, const UsageMark& mark);

// Whether those books tell anything new beside the ones that are kept: that time went by on battery is new
// once in a minute.
bool isWorthKeeping(const std::optional<UsageBooks>& kept, const UsageBooks& books);

// The sums with the interval since the newest mark, for one who only looks. None where the books do not fit
// what is seen.
std::optional<UsageSums> sumsNow(const UsageBooks& books, const UsageMark& seen);

}  // namespace volorn::linux_host
