#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "volornctl/live/sample.h"
#include "volornctl/recorded/line_stream.h"
#include "volornctl/recorded/record_file.h"
#include "volornctl/recorded/record_part.h"

namespace volorn::ctl {

inline constexpr double kDefaultRecordSeconds = 5;

// Makes blocks of samples and sees to it that the file has them: sixty samples each, and what is a minute
// old, at intervals above the default five minutes, is written in any case.
class Recorder {
 public:
  // `tell` is given what people should know: that something is lost, or that it goes on.
  Recorder(RecordFile& file, double interval_seconds, std::function<void(const std::string&)> tell);

  // `line`: its line with its end, as `top --json` prints it, processes by their pid. `asleep_seconds`: how
  // long the machine has slept since it was started.
  void take(const Sample& sample, std::string_view line, double asleep_seconds);

  // Writes what is still held. False where it could not.
  bool finish();

 private:
  struct Before {
    std::int64_t at_ms;
    double asleep_seconds;
  };
  void findBreak(const Sample& sample, double asleep_seconds);
  void cutPart(bool ends_block);
  bool write();
  void forgetOldest();

  RecordFile& file_;
  double most_age_seconds_;
  std::function<void(const std::string&)> tell_;

  LineCompressor compressor_;
  std::optional<Before> before_;
  RecordPart part_;                 // that is being made
  std::size_t block_samples_ = 0;   // of the open block
  std::size_t block_bytes_ = 0;     // of its text
  double held_seconds_ = 0;         // since the last attempt to write
  std::deque<RecordPart> waiting_;  // to be written
  bool is_failing_ = false;
};

}  // namespace volorn::ctl
