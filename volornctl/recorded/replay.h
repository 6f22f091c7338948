#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/date.h"
#include "volornctl/command.h"
#include "volornctl/live/replay_source.h"
#include "volornctl/live/sample.h"

namespace volorn::ctl {

// Whether the program was built with libzstd. Where it was not, nothing else here does anything.
bool isRecordBuilt();

std::unique_ptr<Command> makeRecordCommand();

// What of a record is shown. Times are UTC: a day, a time, or a time of day, which is the last before the
// record's end.
struct ReplayChoice {
  std::string path = {};  // empty: the record of this user's recorder, else the system's
  std::string since = {};
  std::string until = {};  // of a day, its end
  std::string at = {};     // where a screen begins; empty: at the end
};

// Hands out the samples, the oldest first, until it is given false. Returns how many could not be had since
// the file is damaged there. Throws std::runtime_error whose text is for people, and CLI::ValidationError for
// a choice that makes no sense.
std::size_t replay(const ReplayChoice& choice, const std::function<bool(const Sample&)>& show);

// For a screen. Throws as the above, also for a record without a sample. Null where this is not built.
std::unique_ptr<ReplaySource> openReplay(const ReplayChoice& choice, double interval_seconds);

// The moment that a choice's text means in a record that ends then. None for what is no time.
std::optional<Date> timeInRecord(const std::string& text, const Date& end);

// The last sample that was not taken after that time, or the first of all. None for what is no time:
// `message` tells.
std::optional<std::size_t> placeAtTime(const std::vector<RecordedSample>& samples, const std::string& text,
                                       std::string& message);

}  // namespace volorn::ctl
