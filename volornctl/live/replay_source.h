#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "volornctl/live/sample_source.h"
#include "volornctl/recorded/record_part.h"

namespace volorn::ctl {

// Where a key of a replay leads.
struct Move {
  enum class Kind : std::uint8_t {
    kSamples,  // by so many
    kSeconds,  // by so many, at least by a sample
    kTime,     // to the time that the text tells
    kProcess,  // on to where a process ran whose name holds the text
    kBusy,     // on to where the processors were busy
  };
  Kind kind = Kind::kSamples;
  std::int64_t amount = 0;  // below 0: back
  std::string text = {};
};

// What a replay tells of the sample that it shows.
struct Replayed {
  std::shared_ptr<const std::vector<RecordedSample>> all = {};
  std::size_t place = 0;            // of the sample among them
  bool follows = false;             // the sample shown before
  std::vector<Sample> before = {};  // unless it does: the last minutes up to it, without processes
  bool is_playing = false;
  std::string message = {};  // to people, of the move
};

// Samples that were recorded. It plays from where it is while it is not paused, as it is at first.
class ReplaySource : public SampleSource {
 public:
  virtual void move(const Move& move) = 0;

  // Of the sample that next() has handed out last.
  virtual const Replayed& shown() const = 0;
};

inline constexpr int kBusyRecordPercent = 90;

}  // namespace volorn::ctl
