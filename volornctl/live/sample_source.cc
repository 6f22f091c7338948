#include "volornctl/live/sample_source.h"

#include <chrono>
#include <utility>

namespace volorn::ctl {

using Clock = std::chrono::steady_clock;

SamplingThread::SamplingThread(std::function<std::unique_ptr<Sampler>()> make_sampler,
                               double interval_seconds, std::optional<std::int64_t> count)
    : interval_seconds_(interval_seconds),
      left_(count),
      thread_(startThread([this, make = std::move(make_sampler)] { work(make); })) {}

SamplingThread::~SamplingThread() {
  {
    const std::lock_guard lock(mutex_);
    is_to_end_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

// False when it is to end.
bool SamplingThread::waitForTurn(Clock::time_point began) {
  std::unique_lock lock(mutex_);
  while (!is_to_end_) {
    const auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_seconds_));
    if (is_paused_) {
      changed_.wait(lock);
    } else if (Clock::now() >= began + interval) {
      is_sampling_ = true;
      return true;
    } else {
      changed_.wait_until(lock, began + interval);
    }
  }
  return false;
}

void SamplingThread::work(const std::function<std::unique_ptr<Sampler>()>& make_sampler) {
  bool is_over = false;
  try {
    {
      const std::lock_guard lock(mutex_);
      is_sampling_ = true;
    }
    const std::unique_ptr<Sampler> sampler = make_sampler();
    bool is_first = true;
    Clock::time_point began = Clock::now();
    do {
      began = Clock::now();
      auto sample = std::make_shared<const Sample>(sampler->take());
      // The first takes longest, and what follows is to be over no less than an interval.
      if (std::exchange(is_first, false)) began = Clock::now();
      const std::lock_guard lock(mutex_);
      taken_.push_back(std::move(sample));
      is_sampling_ = false;
      is_over = left_ && --*left_ <= 0;
      is_over_ = is_over;
      ready_.call();
    } while (!is_over && waitForTurn(began));
  } catch (...) {
    const std::lock_guard lock(mutex_);
    failure_ = std::current_exception();
    is_sampling_ = false;
    is_over_ = true;
    ready_.call();
  }
}

std::shared_ptr<const Sample> SamplingThread::next() {
  const std::lock_guard lock(mutex_);
  if (taken_.empty()) {
    ready_.clear();
    if (failure_) std::rethrow_exception(failure_);
    return nullptr;
  }
  std::shared_ptr<const Sample> sample = std::move(taken_.front());
  taken_.pop_front();
  return sample;
}

bool SamplingThread::isOver() {
  const std::lock_guard lock(mutex_);
  return is_over_;
}

bool SamplingThread::isSampling() {
  const std::lock_guard lock(mutex_);
  return is_sampling_;
}

void SamplingThread::setInterval(double seconds) {
  {
    const std::lock_guard lock(mutex_);
    interval_seconds_ = seconds;
  }
  changed_.notify_all();
}

void SamplingThread::setPaused(bool is_paused) {
  {
    const std::lock_guard lock(mutex_);
    is_paused_ = is_paused;
  }
  changed_.notify_all();
}

LookupThread::LookupThread(std::unique_ptr<Lookups> lookups)
    : lookups_(std::move(lookups)), thread_(startThread([this] { work(); })) {}

LookupThread::~LookupThread() {
  {
    const std::lock_guard lock(mutex_);
    is_to_end_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void LookupThread::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return is_to_end_ || wanted_; });
    if (is_to_end_) return;
    const Wanted wanted = *std::exchange(wanted_, std::nullopt);
    is_looking_ = true;
    lock.unlock();
    Found found = lookups_->lookUp(wanted);
    lock.lock();
    is_looking_ = false;
    found_.push_back(std::move(found));
    ready_.call();
  }
}

void LookupThread::want(const Wanted& wanted) {
  {
    const std::lock_guard lock(mutex_);
    wanted_ = wanted;
  }
  changed_.notify_all();
}

std::optional<Found> LookupThread::found() {
  const std::lock_guard lock(mutex_);
  if (found_.empty()) {
    ready_.clear();
    return std::nullopt;
  }
  Found found = std::move(found_.front());
  found_.pop_front();
  return found;
}

bool LookupThread::isLooking() {
  const std::lock_guard lock(mutex_);
  return is_looking_;
}

}  // namespace volorn::ctl
