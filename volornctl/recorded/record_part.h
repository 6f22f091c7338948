#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "volornctl/live/sample.h"

namespace volorn::ctl {

// What lies between a sample and the one before it, besides the interval.
enum class Break : std::uint8_t {
  kNone,
  kStart,  // the recorder began
  kSleep,  // the machine slept
  kClock,  // the wall clock was set
};

// What a record tells of a sample without its line.
struct SampleMark {
  std::int64_t at_ms = 0;                         // since 1970, of its end
  std::optional<std::uint8_t> busy_percent = {};  // of all processors together
  std::optional<std::uint8_t> used_percent = {};  // of memory, what is not available

  bool operator==(const SampleMark&) const = default;
};

SampleMark markOf(const Sample& sample);

// What is known of a recorded sample without its line.
struct RecordedSample {
  SampleMark mark = {};
  Break begins = Break::kNone;  // before it
  double break_seconds = 0;
};

// A run of samples that nothing breaks, as the file keeps it. Several make a block, whose lines are one
// stream of zstd, flushed at the end of each: a part is read with those of its block before it.
struct RecordPart {
  bool begins_block = false;
  Break begins = Break::kNone;
  double break_seconds = 0;  // how long the machine slept, how far the clock was set
  std::vector<SampleMark> marks = {};
  std::string lines = {};  // compressed; what `top --json` prints, the processes by their pid
};

inline constexpr std::size_t kSamplesOfABlock = 60;

// Of text; a block that has come to the first ends, and no sound one is longer than the second.
inline constexpr std::size_t kFullBlockBytes = std::size_t{32} << 20;
inline constexpr std::size_t kMostBlockBytes = std::size_t{96} << 20;

// The marks as bytes, the same on every processor. `first_at_ms` is that of the first of them, and no mark is
// 24 days from it.
std::string packedMarks(const std::vector<SampleMark>& marks);

// None where those are no marks of a part.
std::optional<std::vector<SampleMark>> unpackedMarks(std::int64_t first_at_ms, std::string_view bytes);

// Over all that the file keeps of a part, so that no damage of it is shown as a sample.
std::int64_t checksumOf(const RecordPart& part, std::string_view marks);

}  // namespace volorn::ctl
