#include "volornctl/live/replay_strip.h"

#include <algorithm>
#include <cstdint>

namespace volorn::ctl {
namespace {

struct Mean {
  double sum = 0;
  int count = 0;

  void add(const std::optional<std::uint8_t>& percent) {
    if (!percent) return;
    sum += *percent;
    ++count;
  }
  std::optional<double> value() const { return count > 0 ? std::optional(sum / count) : std::nullopt; }
};

// When each sample was taken, on a clock that nobody sets: that a record has it wrong does not stretch the
// strip.
std::vector<std::int64_t> timesOf(const std::vector<RecordedSample>& samples) {
  std::vector<std::int64_t> times_ms = {0};
  for (std::size_t i = 1; i < samples.size(); ++i) {
    const std::int64_t since_ms = samples[i].mark.at_ms - samples[i - 1].mark.at_ms;
    const bool is_told = samples[i].begins != Break::kClock && since_ms > 0;
    times_ms.push_back(times_ms.back() + (is_told ? since_ms : 0));
  }
  return times_ms;
}

char signOf(Break kind) {
  return kind == Break::kSleep ? 'z' : kind == Break::kStart ? 'x' : kind == Break::kClock ? '!' : ' ';
}

}  // namespace

ReplayStrip stripOf(const std::vector<RecordedSample>& samples, std::size_t place, std::size_t columns) {
  ReplayStrip strip;
  if (samples.empty() || columns == 0) return strip;
  const std::vector<std::int64_t> times_ms = timesOf(samples);
  const auto all_ms = static_cast<double>(times_ms.back() + 1);
  const auto columnOf = [&](std::size_t i) {
    const double share = static_cast<double>(times_ms[i]) / all_ms;
    return std::min(static_cast<std::size_t>(share * static_cast<double>(columns)), columns - 1);
  };
  std::vector<Mean> busy(columns);
  std::vector<Mean> used(columns);
  strip.breaks.assign(columns, ' ');
  std::size_t before = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const std::size_t column = columnOf(i);
    const RecordedSample& sample = samples[i];
    busy[column].add(sample.mark.busy_percent);
    used[column].add(sample.mark.used_percent);
    // The columns between belong to the sample, or to what broke the record.
    for (std::size_t between = before + 1; between < column; ++between) {
      if (sample.begins == Break::kNone) {
        busy[between].add(sample.mark.busy_percent);
        used[between].add(sample.mark.used_percent);
      }
      strip.breaks[between] = signOf(sample.begins);
    }
    if (i > 0 && sample.begins != Break::kNone) strip.breaks[column] = signOf(sample.begins);
    before = column;
  }
  for (std::size_t i = 0; i < columns; ++i) {
    strip.busy_percent.push_back(busy[i].value());
    strip.used_percent.push_back(used[i].value());
  }
  strip.place = columnOf(std::min(place, samples.size() - 1));
  return strip;
}

}  // namespace volorn::ctl
