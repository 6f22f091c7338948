#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "volornctl/live/live_sampler.h"
#include "volornctl/live/lookups.h"
#include "volornctl/live/sample.h"
#include "volornctl/wake_up.h"

namespace volorn::ctl {

// Where the samples that a screen shows come from. None of its calls waits for one.
class SampleSource {
 public:
  virtual ~SampleSource() = default;

  // Is readable when there is a sample, or the end has come.
  virtual int readyFd() const = 0;

  // The oldest that has not been handed out; null where there is none yet. Throws what kept it from sampling.
  virtual std::shared_ptr<const Sample> next() = 0;

  // No sample will follow those that next() has still to hand out.
  virtual bool isOver() = 0;

  virtual void setInterval(double seconds) = 0;
  virtual void setPaused(bool is_paused) = 0;
};

// Samples on a thread of its own, the first at once, then each as soon as an interval has passed since the
// one before began.
class SamplingThread : public SampleSource {
 public:
  // `make_sampler` is called on the thread, and what it makes is used and ends there. `count`: of samples;
  // none: without end.
  SamplingThread(std::function<std::unique_ptr<Sampler>()> make_sampler, double interval_seconds,
                 std::optional<std::int64_t> count);
  ~SamplingThread() override;  // waits for the sample under way

  int readyFd() const override { return ready_.fd(); }
  std::shared_ptr<const Sample> next() override;
  bool isOver() override;
  void setInterval(double seconds) override;
  void setPaused(bool is_paused) override;

  // Whether a sample is under way, so that the end of this would wait.
  bool isSampling();

 private:
  void work(const std::function<std::unique_ptr<Sampler>()>& make_sampler);
  bool waitForTurn(std::chrono::steady_clock::time_point began);

  std::mutex mutex_;  // held for what follows
  std::condition_variable changed_;
  double interval_seconds_;
  std::optional<std::int64_t> left_;  // samples
  bool is_paused_ = false;
  bool is_sampling_ = false;
  bool is_over_ = false;
  bool is_to_end_ = false;
  std::deque<std::shared_ptr<const Sample>> taken_;
  std::exception_ptr failure_;

  WakeUp ready_;
  std::thread thread_;
};

// Looks things up on a thread of its own.
class LookupThread {
 public:
  explicit LookupThread(std::unique_ptr<Lookups> lookups);
  ~LookupThread();  // waits for the look under way

  // Replaces what was wanted before and has not been looked for yet.
  void want(const Wanted& wanted);

  // Is readable when something has been found.
  int readyFd() const { return ready_.fd(); }

  std::optional<Found> found();

  bool isLooking();

 private:
  void work();

  std::unique_ptr<Lookups> lookups_;
  std::mutex mutex_;  // held for what follows
  std::condition_variable changed_;
  std::optional<Wanted> wanted_;
  bool is_looking_ = false;
  bool is_to_end_ = false;
  std::deque<Found> found_;

  WakeUp ready_;
  std::thread thread_;
};

}  // namespace volorn::ctl
