#include "volornctl/live/sample_source.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <stdexcept>

#include "volornctl/live/top_screen.h"

namespace volorn::ctl {
namespace {

// A process more with each sample; fails after the fiftieth.
class GrowingSampler : public Sampler {
 public:
  Sample take() override {
    if (sample_.processes.size() == 50) throw std::runtime_error("enough");
    sample_.processes.push_back({.pid = static_cast<std::int32_t>(sample_.processes.size() + 1)});
    return sample_;
  }

 private:
  Sample sample_;
};

class CountingLookups : public Lookups {
 public:
  Found lookUp(const Wanted& wanted) override {
    Found found;
    for (const ProcessId& id : wanted.command_lines) found.command_lines[id] = std::to_string(++count_);
    return found;
  }

 private:
  int count_ = 0;
};

void waitFor(int fd) {
  pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
  ASSERT_EQ(poll(&ready, 1, 60'000), 1);
}

// Also under the thread sanitizer: what both threads use, they use in turn.
TEST(SampleSourceTest, SamplesComeInOrderWhileTheScreenAsks) {
  SamplingThread source([] { return std::make_unique<GrowingSampler>(); }, 1e-3, std::nullopt);
  LookupThread lookups(std::make_unique<CountingLookups>());
  TopScreen screen({}, 1e-3, true);
  screen.press({.name = KeyName::kCharacter, .text = "c"});
  std::size_t processes = 0;
  const auto take_all = [&] {
    while (true) {
      waitFor(source.readyFd());
      while (const std::shared_ptr<const Sample> sample = source.next()) {
        EXPECT_EQ(sample->processes.size(), ++processes);
        screen.take(sample);
        source.setPaused(processes % 2 == 0);
        source.setPaused(false);
        source.setInterval(processes % 3 == 0 ? 0.001 : 0.002);
        screen.draw({100, 100});
        lookups.want(screen.wanted());
        while (const std::optional<Found> found = lookups.found()) screen.take(*found);
      }
    }
  };
  EXPECT_THROW(take_all(), std::runtime_error);
  EXPECT_EQ(processes, 50U);
  EXPECT_TRUE(source.isOver());
}

TEST(SampleSourceTest, ACountEndsItAndAPauseHoldsIt) {
  SamplingThread source([] { return std::make_unique<GrowingSampler>(); }, 1e-3, 2);
  waitFor(source.readyFd());
  while (!source.isOver()) waitFor(source.readyFd());
  EXPECT_EQ(source.next()->processes.size(), 1U);
  EXPECT_EQ(source.next()->processes.size(), 2U);
  EXPECT_EQ(source.next(), nullptr);
  SamplingThread paused([] { return std::make_unique<GrowingSampler>(); }, 1e6, std::nullopt);
  waitFor(paused.readyFd());
  paused.setPaused(true);
  paused.setInterval(1e-6);
  while (paused.next()) continue;
  pollfd ready = {.fd = paused.readyFd(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&ready, 1, 20), 0);
  paused.setPaused(false);
  waitFor(paused.readyFd());
}

}  // namespace
}  // namespace volorn::ctl
