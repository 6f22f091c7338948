#include "platform/linux/usage_books.h"

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;

// The clocks cannot be read at once. No machine sleeps for less.
constexpr std::int64_t kShortestSleepNs = kSecondNs / 10;

// A boot's first mark that comes later is none of its start.
constexpr std::int64_t kLatestStartNs = 600 * kSecondNs;

// For as long nobody need have watched, after a mark that was to be the last, where a supervisor starts one
// who watches again.
constexpr std::int64_t kUnwatchedNs = 60 * kSecondNs;

constexpr std::int64_t kKeepEveryNs = 60 * kSecondNs;

struct Interval {
  std::int64_t awake_ns;
  std::int64_t asleep_ns;
};

// None where a clock ran backwards.
std::optional<Interval> between(const UsageBooks& books, const UsageMark& mark) {
  const std::int64_t awake_ns = mark.monotonic_ns - books.monotonic_ns;
  const std::int64_t asleep_ns = mark.boottime_ns - books.boottime_ns - awake_ns;
  if (awake_ns < 0 || asleep_ns <= -kShortestSleepNs) return std::nullopt;
  return Interval{awake_ns, asleep_ns < kShortestSleepNs ? 0 : asleep_ns};
}

// The sums of a boot before, which nothing is added to: off is neither awake nor asleep.
std::optional<UsageSums> sumsAtStart(const UsageBooks& books, const UsageMark& mark) {
  const bool has_end = *books.plugged_in || books.is_last;
  return has_end && mark.boottime_ns <= kLatestStartNs ? books.sums : std::nullopt;
}

std::optional<UsageSums> sumsAt(const UsageBooks& books, const UsageMark& mark) {
  if (!books.sums || !books.plugged_in || !mark.plugged_in || mark.some_lost) return std::nullopt;
  if (books.boot_id != mark.boot_id) return sumsAtStart(books, mark);
  const auto interval = between(books, mark);
  if (!interval) return std::nullopt;
  const auto [awake_ns, asleep_ns] = *interval;
  const bool differs = books.plugged_in != mark.plugged_in;
  if (differs && asleep_ns > 0) return std::nullopt;
  if (books.is_last && (differs || awake_ns + asleep_ns > kUnwatchedNs)) return std::nullopt;
  UsageSums sums = *books.sums;
  if (!*books.plugged_in) {
    sums.usage_ns += awake_ns;
    sums.standby_ns += asleep_ns;
  }
  return sums;
}

}  // namespace

std::string textOf(const UsageBooks& books) {
  const auto [usage_ns, standby_ns] = books.sums.value_or(UsageSums{-1, -1});
  std::string text;
  for (const std::int64_t number :
       {books.monotonic_ns, books.boottime_ns, std::int64_t{books.plugged_in ? *books.plugged_in : -1},
        std::int64_t{books.is_last}, std::int64_t{books.fully_charged_once}, usage_ns, standby_ns}) {
    text += std::to_string(number) + ' ';
  }
  return text + books.boot_id;
}

std::optional<UsageBooks> parseUsageBooks(std::string_view text) {
  constexpr std::int64_t kMostNs = std::int64_t{1} << 60;  // 36 years, so that sums of them are numbers
  FieldReader fields(text);
  UsageBooks books;
  UsageSums sums;
  int plugged_in = 0, is_last = 0, fully_charged_once = 0;
  for (std::int64_t* ns : {&books.monotonic_ns, &books.boottime_ns}) {
    if (!fields.take(*ns) || *ns < 0 || *ns > kMostNs) return std::nullopt;
  }
  if (!fields.take(plugged_in) || !fields.take(is_last) || !fields.take(fully_charged_once)) {
    return std::nullopt;
  }
  for (std::int64_t* ns : {&sums.usage_ns, &sums.standby_ns}) {
    if (!fields.take(*ns) || *ns < -1 || *ns > kMostNs) return std::nullopt;
  }
  if (plugged_in >= 0) books.plugged_in = plugged_in != 0;
  books.is_last = is_last != 0;
  books.fully_charged_once = fully_charged_once != 0;
  if (sums.usage_ns >= 0 && sums.standby_ns >= 0) books.sums = sums;
  books.boot_id = text.substr(text.rfind(' ') + 1);
  return books;
}

UsageBooks withMark(const std::optional<UsageBooks>& books, const UsageMark& mark) {
  UsageBooks next{.boot_id = mark.boot_id,
                  .monotonic_ns = mark.monotonic_ns,
                  .boottime_ns = mark.boottime_ns,
                  .plugged_in = mark.plugged_in,
                  .is_last = mark.is_last,
                  .fully_charged_once = mark.is_full || (books && books->fully_charged_once)};
  if (mark.is_full) {
    next.sums = UsageSums{};
  } else if (books) {
    next.sums = sumsAt(*books, mark);
  }
  return next;
}

bool isWorthKeeping(const std::optional<UsageBooks>& kept, const UsageBooks& books) {
  if (!kept || kept->boot_id != books.boot_id || kept->plugged_in != books.plugged_in ||
      kept->is_last != books.is_last || kept->fully_charged_once != books.fully_charged_once ||
      kept->sums.has_value() != books.sums.has_value()) {
    return true;
  }
  // A sleep is none of the next interval's.
  const std::int64_t awake_ns = books.monotonic_ns - kept->monotonic_ns;
  if (books.boottime_ns - kept->boottime_ns - awake_ns >= kShortestSleepNs) return true;
  if (!books.sums || *books.plugged_in) return books.sums != kept->sums;
  return awake_ns >= kKeepEveryNs || (books.sums == UsageSums{} && books.sums != kept->sums);
}

std::optional<UsageSums> sumsNow(const UsageBooks& books, const UsageMark& seen) {
  const bool fits = books.boot_id == seen.boot_id && books.plugged_in == seen.plugged_in;
  return fits ? sumsAt(books, seen) : std::nullopt;
}

}  // namespace volorn::linux_host
