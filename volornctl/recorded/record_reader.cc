#include "volornctl/recorded/record_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "volornctl/recorded/line_stream.h"
#include "volornctl/recorded/record_file.h"

namespace volorn::ctl {
namespace {

using linux_host::Database;
using linux_host::SqliteError;
using linux_host::Statement;

constexpr int kPatienceMs = 5'000;
constexpr std::int64_t kPartsAtOnce = 64;
constexpr int kMostDamagedParts = 10'000;

// A year of samples at 5 s takes less; a file that holds more is not sound.
constexpr std::size_t kMostSamples = 10'000'000;

std::string locate(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), std::free);
  struct stat status = {};
  if (!resolved || stat(resolved.get(), &status) != 0 ||
      (S_ISREG(status.st_mode) && access(path.c_str(), R_OK) != 0))
    throw std::runtime_error(path + ": " + std::strerror(errno));
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + ": not a regular file");
  return resolved.get();
}

std::string wordsFor(const SqliteError& error) {
  switch (error.code()) {
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
      return "its recorder was cut off; the next start of it mends the file";
    case SQLITE_BUSY:
      return "its recorder is writing and does not end; try again";
    default:
      return error.tellsOfDamage() ? std::string("damaged (") + error.what() + ")" : error.what();
  }
}

Break breakOf(std::int64_t number) {
  return number > 0 && number <= static_cast<std::int64_t>(Break::kClock) ? static_cast<Break>(number)
                                                                          : Break::kNone;
}

}  // namespace

template <typename Work>
auto RecordReader::guarded(Work work) {
  try {
    return work();
  } catch (const SqliteError& error) {
    throw std::runtime_error(path_ + ": " + wordsFor(error));
  }
}

RecordReader::RecordReader(const std::string& path) : path_(locate(path)) {
  guarded([this] {
    database_.emplace(path_, Database::Access::kReadOnly, kPatienceMs, kMostPartBytes);
    checkRecord(*database_, false);
  });
  refresh();
}

bool RecordReader::refresh() {
  return guarded([this] {
    const std::size_t before = samples_.size();
    int failures = 0;
    for (bool is_more = true; is_more;) {
      try {
        is_more = readMarks();
      } catch (const SqliteError& error) {
        // A page is damaged: parts that stand behind it may be had.
        if (!error.tellsOfDamage() || ++failures > kMostDamagedParts) throw;
        ++last_id_;
      }
    }
    // The block that is looked at may have grown.
    if (samples_.size() > before) block_ = {};
    return samples_.size() > before;
  });
}

// Of some parts after the last one. False at the end.
bool RecordReader::readMarks() {
  Statement select = database_->prepare(
      "SELECT id, block, first_at_ms, begins, break_seconds, marks FROM part WHERE id > ? ORDER BY id LIMIT "
      "?");
  select.bind(1, last_id_).bind(2, kPartsAtOnce);
  std::int64_t read = 0;
  for (; select.step(); ++read) {
    const std::int64_t id = select.integer(0);
    last_id_ = id;
    const auto marks = unpackedMarks(select.integer(2), select.text(5));
    const std::int64_t block = select.integer(1);
    const bool continues = !spans_.empty() && spans_.back().block == block;
    // The beginning of a block has made room, or the marks are damaged, and so is what follows of the block.
    if (!marks || (!continues && block != id)) continue;
    if (samples_.size() + marks->size() > kMostSamples) throw std::runtime_error(path_ + ": holds too much");
    if (!continues) spans_.push_back({.block = block, .begin = samples_.size(), .end = samples_.size()});
    Break begins = breakOf(select.integer(3));
    const double seconds = select.real(4);
    for (const SampleMark& mark : *marks) {
      samples_.push_back({.mark = mark,
                          .begins = std::exchange(begins, Break::kNone),
                          .break_seconds = std::isfinite(seconds) ? seconds : 0});
    }
    spans_.back().end = samples_.size();
  }
  return read == kPartsAtOnce;
}

std::vector<RecordPart> RecordReader::readParts(std::int64_t block) {
  Statement select = database_->prepare(
      "SELECT first_at_ms, begins, break_seconds, marks, checksum, lines, block FROM part WHERE id >= ? "
      "ORDER BY id LIMIT ?");
  select.bind(1, block).bind(2, static_cast<std::int64_t>(kSamplesOfABlock));
  std::vector<RecordPart> parts;
  while (select.step() && select.integer(6) == block) {
    const std::string marks = select.text(3);
    const auto unpacked = unpackedMarks(select.integer(0), marks);
    if (!unpacked) break;
    RecordPart part{.begins = breakOf(select.integer(1)),
                    .break_seconds = select.real(2),
                    .marks = *unpacked,
                    .lines = select.text(5)};
    if (checksumOf(part, marks) != select.integer(4)) break;
    parts.push_back(std::move(part));
  }
  return parts;
}

const RecordReader::Block& RecordReader::blockOf(std::size_t sample) {
  if (sample >= block_.begin && sample < block_.end) return block_;
  const auto after = std::ranges::upper_bound(spans_, sample, {}, &Span::begin);
  const Span& span = *std::prev(after);
  block_ = {.begin = span.begin, .end = span.end};
  block_.lines.resize(span.end - span.begin);
  std::vector<RecordPart> parts;
  try {
    parts = readParts(span.block);
  } catch (const SqliteError& error) {
    // Of a page that is damaged nothing else is.
    if (!error.tellsOfDamage()) throw std::runtime_error(path_ + ": " + wordsFor(error));
  }
  LineExpander expander;
  std::size_t count = 0;
  for (const RecordPart& part : parts) {
    const std::size_t before = block_.text.size();
    if (!expander.expand(part.lines, block_.text)) {
      block_.text.resize(before);
      break;
    }
    count += part.marks.size();
  }
  std::string_view left = block_.text;
  for (std::size_t i = 0; i < std::min(count, block_.lines.size()); ++i) {
    const std::size_t end = left.find('\n');
    if (end == std::string_view::npos) break;
    block_.lines[i] = left.substr(0, end);
    left.remove_prefix(end + 1);
  }
  return block_;
}

}  // namespace volorn::ctl
