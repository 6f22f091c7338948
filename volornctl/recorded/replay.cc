#include "volornctl/recorded/replay.h"

#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "volornctl/recorded/record.h"
#include "volornctl/recorded/record_path.h"
#include "volornctl/recorded/record_reader.h"
#include "volornctl/recorded/replaying_thread.h"
#include "volornctl/recorded/sample_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr double kSecondsPerDay = 86'400;
constexpr std::string_view kDay = "2026-11-23";

const std::string kNoTime =
    "not a day such as 2026-11-23, nor a time such as 2026-11-23T04:05:06Z or 04:05: ";

Date endOf(const std::vector<RecordedSample>& samples) {
  return Date::fromSecondsSince1970(static_cast<double>(samples.back().mark.at_ms) / 1000);
}

}  // namespace

bool isRecordBuilt() {
  return true;
}

std::unique_ptr<Command> makeRecordCommand() {
  return std::make_unique<RecordCommand>();
}

std::optional<Date> timeInRecord(const std::string& text, const Date& end) {
  if (const std::optional<Date> date = dateOf(text, utc)) return date;
  // "04:05" and "04:05:06"
  const std::optional<std::string> day = dayText(daysSince1970(end).value_or(0));
  const std::size_t kLengths[] = {5, 8};
  for (const std::size_t length : kLengths) {
    if (!day || text.size() != length) continue;
    const std::optional<Date> time = dateOf(*day + "T" + text + (length == 5 ? ":00Z" : "Z"), utc);
    if (!time) continue;
    const double behind_seconds = time->secondsSince(end) > 0 ? kSecondsPerDay : 0;
    return Date::fromSecondsSince1970(time->secondsSince1970() - behind_seconds);
  }
  return std::nullopt;
}

std::optional<std::size_t> placeAtTime(const std::vector<RecordedSample>& samples, const std::string& text,
                                       std::string& message) {
  const std::optional<Date> date = timeInRecord(text, endOf(samples));
  if (!date) {
    message = kNoTime + text;
    return std::nullopt;
  }
  const double at_ms = date->secondsSince1970() * 1000;
  std::size_t place = samples.size();
  while (place > 0 && static_cast<double>(samples[place - 1].mark.at_ms) > at_ms) --place;
  return place == 0 ? 0 : place - 1;
}

std::unique_ptr<ReplaySource> openReplay(const ReplayChoice& choice, double interval_seconds) {
  const std::string path = choice.path.empty() ? recordToRead() : choice.path;
  auto reader = std::make_unique<RecordReader>(path);
  if (reader->samples().empty()) throw std::runtime_error(path + ": holds no sample yet");
  std::optional<std::size_t> place = reader->samples().size() - 1;
  std::string message;
  if (!choice.at.empty()) place = placeAtTime(reader->samples(), choice.at, message);
  if (!place) throw CLI::ValidationError("--at", message);
  return std::make_unique<ReplayingThread>(std::move(reader), *place, interval_seconds);
}

std::size_t replay(const ReplayChoice& choice, const std::function<bool(const Sample&)>& show) {
  RecordReader reader(choice.path.empty() ? recordToRead() : choice.path);
  const std::vector<RecordedSample>& samples = reader.samples();
  if (samples.empty()) return 0;
  const Date end = endOf(samples);
  const auto msOf = [&](const char* option, const std::string& text, std::int64_t otherwise) {
    if (text.empty()) return otherwise;
    const std::optional<Date> date = timeInRecord(text, end);
    if (!date) throw CLI::ValidationError(option, kNoTime + text);
    return static_cast<std::int64_t>(date->secondsSince1970() * 1000);
  };
  const std::int64_t since_ms = msOf("--since", choice.since, std::numeric_limits<std::int64_t>::min());
  std::int64_t until_ms = msOf("--until", choice.until, std::numeric_limits<std::int64_t>::max());
  if (choice.until.size() == kDay.size()) until_ms += static_cast<std::int64_t>(kSecondsPerDay) * 1000 - 1;
  std::size_t damaged = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const std::int64_t at_ms = samples[i].mark.at_ms;
    if (at_ms < since_ms || at_ms > until_ms) continue;
    const RecordReader::Block& block = reader.blockOf(i);
    const std::optional<Sample> sample = sampleOfLine(block.lines[i - block.begin]);
    if (!sample) {
      ++damaged;
    } else if (!show(*sample)) {
      break;
    }
  }
  return damaged;
}

}  // namespace volorn::ctl
