#include "volornctl/recorded/replaying_thread.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "volornctl/live/process_list.h"
#include "volornctl/recorded/replay.h"
#include "volornctl/recorded/sample_text.h"
#include "volornctl/text/json_text.h"

namespace volorn::ctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kGraphMs = 300'000;
constexpr std::size_t kMostBefore = 600;  // samples

// As it stands within a line.
std::string lineTextOf(const std::string& name) {
  const std::string quoted = jsonLine(Json(name));
  return quoted.substr(1, quoted.size() - 3);
}

// Whether it may hold such a process that ran: what is quick to see, in letters of either case.
bool mayHold(const std::string& line, const std::string& name) {
  constexpr std::string_view kPercent = "\"cpuPercent\":";
  const char* place = line.c_str();
  while ((place = strcasestr(place, name.c_str()))) {
    const char* percent = std::strstr(place, kPercent.data());
    if (percent && std::strtod(percent + kPercent.size(), nullptr) > 0) return true;
    ++place;
  }
  return false;
}

bool holdsOneThatRan(const Sample& sample, const std::string& name) {
  const ProcessList list = listProcesses(sample, {.name = name}, {});
  return std::ranges::any_of(list,
                             [](const ProcessRow& row) { return row.process->cpu_percent.value_or(0) > 0; });
}

}  // namespace

ReplayingThread::ReplayingThread(std::unique_ptr<RecordReader> reader, std::size_t place,
                                 double interval_seconds)
    : reader_(std::move(reader)),
      all_(std::make_shared<const std::vector<RecordedSample>>(reader_->samples())),
      place_(place),
      interval_seconds_(interval_seconds),
      thread_(startThread([this] { work(); })) {}

ReplayingThread::~ReplayingThread() {
  {
    const std::lock_guard lock(mutex_);
    is_to_end_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool ReplayingThread::isInterrupted() {
  const std::lock_guard lock(mutex_);
  return is_to_end_ || !moves_.empty();
}

std::optional<Sample> ReplayingThread::sampleAt(std::size_t place) {
  const RecordReader::Block& block = reader_->blockOf(place);
  return sampleOfLine(block.lines[place - block.begin]);
}

// As far as nothing lies between them.
std::vector<Sample> ReplayingThread::samplesBefore(std::size_t place) {
  const std::vector<RecordedSample>& all = *all_;
  std::size_t first = place;
  while (first > 0 && place - first < kMostBefore && all[first].begins == Break::kNone &&
         all[place].mark.at_ms - all[first - 1].mark.at_ms <= kGraphMs) {
    --first;
  }
  std::vector<Sample> samples;
  for (std::size_t i = first; i < place; ++i) {
    const RecordReader::Block& block = reader_->blockOf(i);
    if (std::optional<Sample> head = sampleOfLine(block.lines[i - block.begin], Parse::kHead)) {
      samples.push_back(std::move(*head));
    }
  }
  return samples;
}

// The nearest sample that can be had, that way first.
void ReplayingThread::handOut(std::size_t place, int way) {
  const std::vector<RecordedSample>& all = *all_;
  std::optional<Sample> sample;
  const auto lookFrom = [&](std::size_t from, int step) {
    for (std::size_t i = from; i < all.size() && !sample; i += static_cast<std::size_t>(step)) {
      sample = sampleAt(i);
      if (sample) place = i;
    }
  };
  const std::size_t wanted = place;
  lookFrom(wanted, way);
  if (!sample) lookFrom(wanted, -way);
  if (sample && place != wanted) message_ = "what is damaged was passed over";
  if (!sample) return;
  Replayed replayed{.all = all_,
                    .place = place,
                    .follows = has_shown_ && place == place_ + 1 && all[place].begins == Break::kNone,
                    .message = std::exchange(message_, {})};
  if (!replayed.follows) replayed.before = samplesBefore(place);
  place_ = place;
  has_shown_ = true;
  const std::lock_guard lock(mutex_);
  replayed.is_playing = !is_paused_;
  taken_.emplace_back(std::make_shared<const Sample>(std::move(*sample)), std::move(replayed));
  ready_.call();
}

std::size_t ReplayingThread::placeAfterSeconds(std::int64_t seconds, std::size_t place) const {
  const std::vector<RecordedSample>& all = *all_;
  const std::int64_t from_ms = all[place].mark.at_ms;
  const std::size_t step = seconds < 0 ? std::size_t{0} - 1 : 1;
  for (std::size_t i = place + step; i < all.size(); i += step) {
    place = i;
    if (std::abs(all[i].mark.at_ms - from_ms) >= std::abs(seconds) * 1000) break;
  }
  return place;
}

std::size_t ReplayingThread::placeOfProcess(const std::string& name, std::size_t place) {
  const std::string text = lineTextOf(name);
  for (std::size_t i = place + 1; i < all_->size(); ++i) {
    if (isInterrupted()) return place;
    const RecordReader::Block& block = reader_->blockOf(i);
    if (!mayHold(std::string(block.lines[i - block.begin]), text)) continue;
    const std::optional<Sample> sample = sampleAt(i);
    if (sample && holdsOneThatRan(*sample, name)) return i;
  }
  message_ = "no such process ran from here on";
  return place;
}

std::size_t ReplayingThread::placeAfter(const Move& move, std::size_t place) {
  const std::vector<RecordedSample>& all = *all_;
  const std::size_t last = all.size() - 1;
  switch (move.kind) {
    case Move::Kind::kSamples:
      return move.amount < 0 ? place - std::min(place, static_cast<std::size_t>(-move.amount))
                             : std::min(last, place + static_cast<std::size_t>(move.amount));
    case Move::Kind::kSeconds:
      return placeAfterSeconds(move.amount, place);
    case Move::Kind::kTime:
      return placeAtTime(all, move.text, message_).value_or(place);
    case Move::Kind::kProcess:
      return placeOfProcess(move.text, place);
    case Move::Kind::kBusy: {
      const auto is_busy = [](const RecordedSample& sample) {
        return sample.mark.busy_percent.value_or(0) >= kBusyRecordPercent;
      };
      const auto found =
          std::find_if(all.begin() + static_cast<std::ptrdiff_t>(place) + 1, all.end(), is_busy);
      if (found != all.end()) return static_cast<std::size_t>(found - all.begin());
      message_ = "the processors were not busy from here on";
      return place;
    }
  }
  return place;
}

void ReplayingThread::work() {
  try {
    handOut(place_, -1);
    Clock::time_point turn = Clock::now();
    std::unique_lock lock(mutex_);
    while (!is_to_end_) {
      const auto interval =
          std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
      if (moves_.empty() && (is_paused_ || Clock::now() < turn + interval)) {
        is_paused_ ? changed_.wait(lock) : void(changed_.wait_until(lock, turn + interval));
        if (is_paused_) turn = Clock::now();
        continue;
      }
      turn = Clock::now();
      std::deque<Move> moves = std::exchange(moves_, {});
      if (moves.empty()) moves.push_back({.amount = 1});  // it plays
      lock.unlock();
      std::size_t place = place_;
      for (const Move& move : moves) place = placeAfter(move, place);
      // At the end its recorder may have gone on.
      if (place == place_ && moves.back().amount > 0 && reader_->refresh()) {
        all_ = std::make_shared<const std::vector<RecordedSample>>(reader_->samples());
        place = placeAfter(moves.back(), place_);
      }
      if (place == place_ && moves.back().amount > 0) setPaused(true);
      handOut(place, place < place_ ? -1 : 1);
      lock.lock();
    }
  } catch (...) {
    const std::lock_guard lock(mutex_);
    failure_ = std::current_exception();
    ready_.call();
  }
}

std::shared_ptr<const Sample> ReplayingThread::next() {
  const std::lock_guard lock(mutex_);
  if (taken_.empty()) {
    ready_.clear();
    if (failure_) std::rethrow_exception(failure_);
    return nullptr;
  }
  std::shared_ptr<const Sample> sample = std::move(taken_.front().first);
  shown_ = std::move(taken_.front().second);
  taken_.pop_front();
  return sample;
}

void ReplayingThread::setInterval(double seconds) {
  {
    const std::lock_guard lock(mutex_);
    interval_seconds_ = seconds;
  }
  changed_.notify_all();
}

void ReplayingThread::setPaused(bool is_paused) {
  {
    const std::lock_guard lock(mutex_);
    is_paused_ = is_paused;
  }
  changed_.notify_all();
}

void ReplayingThread::move(const Move& move) {
  {
    const std::lock_guard lock(mutex_);
    moves_.push_back(move);
  }
  changed_.notify_all();
}

}  // namespace volorn::ctl
