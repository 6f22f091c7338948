#include "volornctl/recorded/recorder.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace volorn::ctl {
namespace {

// What a clock is set by, or a sleep takes, for it to be told.
constexpr double kLeastBreakSeconds = 1;

constexpr std::int64_t kMostPartMs = std::int64_t{1} << 30;  // marks tell times within it

// What is held while the file cannot be written. Hours of it, at the default interval.
constexpr std::size_t kMostWaitingBytes = std::size_t{4} << 20;

std::size_t bytesOf(const std::deque<RecordPart>& parts) {
  std::size_t bytes = 0;
  for (const RecordPart& part : parts) bytes += part.lines.size();
  return bytes;
}

}  // namespace

Recorder::Recorder(RecordFile& file, double interval_seconds, std::function<void(const std::string&)> tell)
    : file_(file),
      most_age_seconds_(interval_seconds <= kDefaultRecordSeconds ? 60 : 300),
      tell_(std::move(tell)) {}

// What is between this sample and the one before, for the part that begins with it.
void Recorder::findBreak(const Sample& sample, double asleep_seconds) {
  const std::int64_t at_ms = markOf(sample).at_ms;
  Break found = Break::kNone;
  double seconds = 0;
  if (!before_) {
    found = Break::kStart;
  } else {
    const double slept = asleep_seconds - before_->asleep_seconds;
    const double set =
        static_cast<double>(at_ms - before_->at_ms) / 1000 - sample.interval_seconds.value_or(0);
    if (std::abs(set) >= kLeastBreakSeconds) {
      found = Break::kClock;
      seconds = set;
    } else if (slept >= kLeastBreakSeconds) {
      found = Break::kSleep;
      seconds = slept;
    }
  }
  before_ = {.at_ms = at_ms, .asleep_seconds = asleep_seconds};
  if (found == Break::kNone &&
      (part_.marks.empty() || std::abs(at_ms - part_.marks.front().at_ms) < kMostPartMs)) {
    return;
  }
  cutPart(false);
  part_.begins = found;
  part_.break_seconds = seconds;
}

void Recorder::take(const Sample& sample, std::string_view line, double asleep_seconds) {
  if (line.size() > kMostBlockBytes - kFullBlockBytes) {
    tell_("a sample of " + std::to_string(line.size()) + " bytes is left out");
    return;
  }
  findBreak(sample, asleep_seconds);
  if (block_samples_ == 0) {
    compressor_.begin(line.size());
    part_.begins_block = true;
  }
  compressor_.add(line);
  part_.marks.push_back(markOf(sample));
  ++block_samples_;
  block_bytes_ += line.size();
  const bool is_full = block_samples_ == kSamplesOfABlock || block_bytes_ >= kFullBlockBytes;
  held_seconds_ += sample.interval_seconds.value_or(0);
  if (is_full || held_seconds_ >= most_age_seconds_) {
    cutPart(is_full);
    write();
  }
}

void Recorder::cutPart(bool ends_block) {
  if (ends_block) block_samples_ = block_bytes_ = 0;
  if (part_.marks.empty()) return;
  part_.lines = compressor_.take(ends_block);
  waiting_.push_back(std::exchange(part_, {}));
}

// Of a whole block: what continues one of which nothing is left cannot be read.
void Recorder::forgetOldest() {
  do {
    waiting_.pop_front();
  } while (!waiting_.empty() && !waiting_.front().begins_block);
  if (waiting_.empty()) block_samples_ = block_bytes_ = 0;
}

bool Recorder::write() {
  held_seconds_ = 0;
  const std::optional<std::string> failure = file_.append(waiting_);
  if (!failure) {
    if (std::exchange(is_failing_, false)) tell_("the record goes on");
    waiting_.clear();
    if (!file_.hasOpenBlock()) block_samples_ = block_bytes_ = 0;
    return true;
  }
  if (!std::exchange(is_failing_, true)) tell_(*failure + "; what is sampled meanwhile is held in memory");
  if (bytesOf(waiting_) > kMostWaitingBytes) {
    tell_("too much is held in memory: the oldest block of it is lost");
    forgetOldest();
  }
  return false;
}

bool Recorder::finish() {
  cutPart(true);
  return waiting_.empty() || write();
}

}  // namespace volorn::ctl
