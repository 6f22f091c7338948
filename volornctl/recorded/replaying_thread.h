#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "volornctl/live/replay_source.h"
#include "volornctl/recorded/record_reader.h"
#include "volornctl/wake_up.h"

namespace volorn::ctl {

// Reads a record on a thread of its own, from where the moves lead.
class ReplayingThread : public ReplaySource {
 public:
  // Begins at that sample; there is one.
  ReplayingThread(std::unique_ptr<RecordReader> reader, std::size_t place, double interval_seconds);
  ~ReplayingThread() override;

  int readyFd() const override { return ready_.fd(); }
  std::shared_ptr<const Sample> next() override;
  bool isOver() override { return false; }
  void setInterval(double seconds) override;
  void setPaused(bool is_paused) override;
  void move(const Move& move) override;
  const Replayed& shown() const override { return shown_; }

 private:
  void work();
  std::size_t placeAfter(const Move& move, std::size_t place);
  std::size_t placeAfterSeconds(std::int64_t seconds, std::size_t place) const;
  std::size_t placeOfProcess(const std::string& name, std::size_t place);
  std::optional<Sample> sampleAt(std::size_t place);
  std::vector<Sample> samplesBefore(std::size_t place);
  void handOut(std::size_t place, int way);
  bool isInterrupted();

  // Of the thread alone.
  std::unique_ptr<RecordReader> reader_;
  std::shared_ptr<const std::vector<RecordedSample>> all_;
  std::size_t place_;
  bool has_shown_ = false;
  std::string message_;

  Replayed shown_;  // of whoever asks

  std::mutex mutex_;  // held for what follows
  std::condition_variable changed_;
  double interval_seconds_;
  bool is_paused_ = true;
  bool is_to_end_ = false;
  std::deque<Move> moves_;
  std::deque<std::pair<std::shared_ptr<const Sample>, Replayed>> taken_;
  std::exception_ptr failure_;

  WakeUp ready_;
  std::thread thread_;
};

}  // namespace volorn::ctl
