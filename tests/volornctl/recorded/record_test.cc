#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tests/temporary_folder.h"
#include "volornctl/live/process_list.h"
#include "volornctl/live/replay_strip.h"
#include "volornctl/live/top_json.h"
#include "volornctl/recorded/record_reader.h"
#include "volornctl/recorded/recorder.h"
#include "volornctl/recorded/replay.h"
#include "volornctl/recorded/sample_text.h"

namespace volorn::ctl {
namespace {

constexpr double kStart = 1795406706.0;  // 2026-11-23 04:05:06 UTC

std::string lineOf(const Sample& sample) {
  return topJson(sample, listProcesses(sample, {.order = Column::kPid}, {}));
}

// A machine whose processes come, work and go, every figure anything that it may be.
class Churn {
 public:
  Sample next(double seconds = 5) {
    Sample& sample = sample_;
    uptime_seconds_ += seconds;
    sample.at = Date::fromSecondsSince1970(kStart + uptime_seconds_ + 0.123);
    if (uptime_seconds_ > seconds) sample.interval_seconds = seconds;
    sample.user_percent = maybe(number(60));
    sample.system_percent = maybe(number(40));
    sample.load = {number(9), 0.25, 10};
    sample.total_bytes = std::uint64_t{8} << 30;
    sample.available_bytes = maybe(random_() % sample.total_bytes);
    sample.state_counts[kProcessRunning] = static_cast<std::uint32_t>(random_() % 9);
    std::erase_if(sample.processes, [this](const auto&) { return random_() % 50 == 0; });
    while (sample.processes.size() < 6) start();
    for (ProcessFigures& process : sample.processes) {
      if (random_() % 10 == 0) work(process);
    }
    return sample;
  }

 private:
  double number(double most) { return most * static_cast<double>(random_() % 10'000) / 10'007; }
  template <typename Value>
  std::optional<Value> maybe(Value value) {
    return random_() % 20 == 0 ? std::nullopt : std::optional(value);
  }
  void start() {
    static constexpr const char* kNames[] = {"sh", "a \"b\" \\ c", "\xE6\xBC\xA2\n\x1b[2J",
                                             "\xC3\xA9 {\"pid\":1}"};
    sample_.processes.push_back({.pid = ++pid_,
                                 .ppid = 1,
                                 .uid = 4294967294,
                                 .command = kNames[random_() % 4],
                                 .started_at = Date::fromSecondsSince1970(kStart + uptime_seconds_),
                                 .state = kProcessSleeping,
                                 .threads = 1});
  }
  void work(ProcessFigures& process) {
    process.state = static_cast<std::uint32_t>(kProcessRunning + random_() % 7);
    process.cpu_percent = maybe(number(200));
    process.cpu_seconds += number(5);
    process.descriptors = maybe(static_cast<std::uint32_t>(random_()));
    process.resident_bytes = random_() << 32 | random_();
    process.private_bytes = maybe<std::uint64_t>(random_());
    process.faults_per_second = maybe(number(1e9));
    process.context_switches_per_second = maybe(number(1e-9));
  }

  std::mt19937 random_{7};
  Sample sample_;
  std::int32_t pid_ = 1;
  double uptime_seconds_ = 0;
};

class RecordTest : public testing::Test {
 protected:
  void record(std::size_t samples, std::int64_t keep_bytes = std::int64_t{64} << 20) {
    RecordFile file(path_, keep_bytes, tell_);
    Recorder recorder(file, kDefaultRecordSeconds, tell_);
    for (std::size_t i = 0; i < samples; ++i) {
      const Sample sample = churn_.next();
      lines_.push_back(lineOf(sample));
      recorder.take(sample, lines_.back(), 0);
    }
    EXPECT_TRUE(recorder.finish());
  }

  // The lines that are there are those that were recorded, in their order. Returns how many there are.
  std::size_t checkRecord(const std::string& path) {
    RecordReader reader(path);
    auto expected = lines_.begin();
    std::size_t found = 0;
    for (std::size_t i = 0; i < reader.samples().size(); ++i) {
      const RecordReader::Block& block = reader.blockOf(i);
      const std::string line = std::string(block.lines[i - block.begin]) + "\n";
      if (line.size() == 1) continue;
      expected = std::find(expected, lines_.end(), line);
      if (expected == lines_.end()) {
        ADD_FAILURE() << "not recorded: " << line;
        break;
      }
      ++expected;
      ++found;
    }
    return found;
  }

  TemporaryFolder folder_;
  std::string path_ = (folder_ / "record.db").string();
  std::vector<std::string> lines_;
  std::deque<std::string> told_;
  std::function<void(const std::string&)> tell_ = [this](const std::string& text) { told_.push_back(text); };
  Churn churn_;
};

TEST_F(RecordTest, WhatIsReplayedIsWhatWasSampledFieldByField) {
  record(600);
  record(401);
  EXPECT_EQ(checkRecord(path_), 1001U);
  RecordReader reader(path_);
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    const RecordReader::Block& block = reader.blockOf(i);
    const std::string line(block.lines[i - block.begin]);
    const std::optional<Sample> sample = sampleOfLine(line);
    ASSERT_TRUE(sample) << line;
    EXPECT_EQ(lineOf(*sample), line + "\n");
    EXPECT_EQ(markOf(*sample), reader.samples()[i].mark) << i;
    EXPECT_EQ(reader.samples()[i].begins, i % 600 == 0 ? Break::kStart : Break::kNone) << i;
    std::optional<Sample> head = sampleOfLine(line, Parse::kHead);
    ASSERT_TRUE(head);
    head->processes = sample->processes;
    EXPECT_EQ(lineOf(*head), line + "\n");
  }
}

TEST_F(RecordTest, TheOldestMakeRoom) {
  std::mt19937 random;
  for (const std::int64_t keep_bytes : {4 * kLeastKeptBytes, kLeastKeptBytes}) {
    RecordFile file(path_, keep_bytes, tell_);
    EXPECT_THROW(RecordFile(path_, keep_bytes, tell_), std::runtime_error);  // another recorder
    Recorder recorder(file, kDefaultRecordSeconds, tell_);
    for (int i = 0; i < 1000; ++i) {
      std::string& line = lines_.emplace_back(8000, ' ');
      for (char& c : line) c = static_cast<char>('!' + random() % 64);
      line.back() = '\n';
      recorder.take({.at = Date::fromSecondsSince1970(kStart + i * 5), .interval_seconds = 5}, line,
                    i > 500 ? 30 : 0);
    }
    EXPECT_TRUE(recorder.finish());
    EXPECT_EQ(told_, std::deque<std::string>());
    const auto size_bytes =
        std::filesystem::file_size(path_) + std::filesystem::file_size(path_ + "-journal");
    EXPECT_LE(size_bytes, static_cast<std::uint64_t>(keep_bytes));
    EXPECT_GT(size_bytes, static_cast<std::uint64_t>(keep_bytes) / 2);
    EXPECT_GT(checkRecord(path_), static_cast<std::uint64_t>(keep_bytes) / 2 / 8000);
    EXPECT_EQ(std::ranges::count(RecordReader(path_).samples(), Break::kSleep, &RecordedSample::begins),
              keep_bytes == kLeastKeptBytes ? 0 : 1);
  }
}

TEST_F(RecordTest, DamageIsSkipped) {
  record(300);
  const std::string good = folder_.read("record.db");
  const std::string damaged = (folder_ / "damaged.db").string();
  std::mt19937 random;
  int losses = 0;
  int refusals = 0;
  for (int i = 0; i < 150; ++i) {
    std::string bytes = good;
    for (auto changes = 1 + random() % 3; changes > 0; --changes) {
      const std::size_t place = random() % bytes.size();
      const std::size_t length = std::min<std::size_t>(random() % 2 == 0 ? 1 : 4096, bytes.size() - place);
      for (std::size_t k = 0; k < length; ++k) bytes[place + k] = static_cast<char>(random());
      if (random() % 20 == 0) bytes.resize(place);
    }
    folder_.write("damaged.db", bytes);
    try {
      losses += checkRecord(damaged) < 300 ? 1 : 0;
    } catch (const std::runtime_error& error) {
      ++refusals;
    }
  }
  EXPECT_GT(losses, 50);
  EXPECT_LT(refusals, 75);
}

TEST_F(RecordTest, AReaderThatHangsCostsAWaitAndNoSample) {
  RecordFile file(path_, kLeastKeptBytes, tell_);
  Recorder recorder(file, kDefaultRecordSeconds, tell_);
  const auto take = [&](int samples) {
    for (; samples > 0; --samples) {
      const Sample sample = churn_.next();
      recorder.take(sample, lines_.emplace_back(lineOf(sample)), 0);
    }
  };
  take(13);
  {
    linux_host::Database reader(path_, linux_host::Database::Access::kReadOnly, 0);
    linux_host::Statement reading = reader.prepare("SELECT * FROM part");
    reading.step();
    take(12);
    EXPECT_EQ(told_.size(), 1U);
  }
  take(12);
  EXPECT_EQ(told_.back(), "the record goes on");
  EXPECT_EQ(checkRecord(path_), 37U);
}

// A record of an hour at 5 s, asleep for another in its middle, then set back by a minute.
std::vector<RecordedSample> hourWithBreaks() {
  std::vector<RecordedSample> samples;
  std::int64_t at_ms = 0;
  for (int i = 0; i < 720; ++i) {
    Break begins = Break::kNone;
    if (i == 360) begins = Break::kSleep;
    if (i == 540) begins = Break::kClock;
    at_ms += i == 360 ? 3'600'000 : i == 540 ? -60'000 : 5'000;
    samples.push_back(
        {.mark = {.at_ms = at_ms, .busy_percent = i < 360 ? 100 : 0, .used_percent = {}}, .begins = begins});
  }
  return samples;
}

TEST(ReplayStripTest, ShowsTheWholeRecordAndItsGaps) {
  const ReplayStrip strip = stripOf(hourWithBreaks(), 719, 8);
  EXPECT_EQ(graph(strip.busy_percent, {.low = 0, .high = 100}, false), "##    __");
  EXPECT_EQ(graph(strip.used_percent, {.low = 0, .high = 100}, false), "        ");
  EXPECT_EQ(strip.breaks, "  zzzzz!");
  EXPECT_EQ(strip.place, 7U);
}

TEST(ReplayTest, TimesLeadToTheSampleThen) {
  const std::vector<RecordedSample> samples = hourWithBreaks();
  const std::pair<const char*, std::optional<std::size_t>> cases[] = {
      {"1970-01-01T00:00:05Z", 0}, {"1969-12-31", 0},           {"00:01", 11}, {"01:29:00", 359},
      {"2026-11-23", 719},         {"1970-01-01T00:00:14Z", 1}, {"23:59", 0},  {"yesterday", std::nullopt},
      {"25:00", std::nullopt},
  };
  for (const auto& [text, place] : cases) {
    std::string message;
    EXPECT_EQ(placeAtTime(samples, text, message), place) << text;
    EXPECT_EQ(message.empty(), place.has_value());
  }
}

TEST(LineStreamTest, WhatWouldTakeAllMemoryIsRefused) {
  LineCompressor compressor;
  compressor.begin(1 << 20);
  const std::string blanks(1 << 20, ' ');
  for (int i = 0; i < 110; ++i) compressor.add(blanks);
  LineExpander expander;
  std::string text;
  EXPECT_FALSE(expander.expand(compressor.take(true), text));
  EXPECT_LE(text.size(), kMostBlockBytes);
}

}  // namespace
}  // namespace volorn::ctl
