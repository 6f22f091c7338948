#include "volornctl/recorded/record_part.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace volorn::ctl {
namespace {

constexpr std::size_t kMarkBytes = 6;  // four of time since the first, processors, memory
constexpr std::uint8_t kUnknown = 255;

std::uint8_t byteOf(const std::optional<std::uint8_t>& percent) {
  return percent.value_or(kUnknown);
}

std::optional<std::uint8_t> percentOf(char byte) {
  const auto value = static_cast<std::uint8_t>(byte);
  return value <= 100 ? std::optional(value) : std::nullopt;
}

std::optional<std::uint8_t> rounded(double percent) {
  if (!(percent >= 0 && percent <= 101)) return std::nullopt;
  return static_cast<std::uint8_t>(std::min(std::lround(percent), 100L));
}

class Fnv1a {
 public:
  void add(std::string_view bytes) {
    for (const char byte : bytes) {
      hash_ = (hash_ ^ static_cast<std::uint8_t>(byte)) * 0x100000001B3;
    }
  }
  void add(std::uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8) {
      const char byte = static_cast<char>(number >> shift & 0xFF);
      add({&byte, 1});
    }
  }
  std::int64_t value() const { return static_cast<std::int64_t>(hash_); }

 private:
  std::uint64_t hash_ = 0xCBF29CE484222325;
};

}  // namespace

SampleMark markOf(const Sample& sample) {
  SampleMark mark{.at_ms = static_cast<std::int64_t>(std::floor(sample.at.secondsSince1970() * 1000 + 1e-3))};
  if (sample.user_percent && sample.system_percent) {
    mark.busy_percent = rounded(*sample.user_percent + *sample.system_percent);
  }
  if (sample.available_bytes && sample.total_bytes > 0) {
    const auto available = static_cast<double>(*sample.available_bytes);
    mark.used_percent = rounded(100 - available * 100 / static_cast<double>(sample.total_bytes));
  }
  return mark;
}

std::string packedMarks(const std::vector<SampleMark>& marks) {
  std::string bytes;
  for (const SampleMark& mark : marks) {
    const auto since_first = static_cast<std::uint32_t>(mark.at_ms - marks.front().at_ms);
    for (unsigned shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(since_first >> shift & 0xFF);
    bytes += static_cast<char>(byteOf(mark.busy_percent));
    bytes += static_cast<char>(byteOf(mark.used_percent));
  }
  return bytes;
}

std::optional<std::vector<SampleMark>> unpackedMarks(std::int64_t first_at_ms, std::string_view bytes) {
  constexpr std::int64_t kMostMs = std::int64_t{1} << 53;  // as many as a double tells apart
  const std::size_t count = bytes.size() / kMarkBytes;
  if (count == 0 || count > kSamplesOfABlock || bytes.size() % kMarkBytes != 0) return std::nullopt;
  if (first_at_ms > kMostMs || first_at_ms < -kMostMs) return std::nullopt;
  std::vector<SampleMark> marks;
  for (; !bytes.empty(); bytes.remove_prefix(kMarkBytes)) {
    std::uint32_t since_first = 0;
    for (std::size_t i = 4; i-- > 0;) since_first = since_first << 8 | static_cast<std::uint8_t>(bytes[i]);
    marks.push_back({.at_ms = first_at_ms + std::bit_cast<std::int32_t>(since_first),
                     .busy_percent = percentOf(bytes[4]),
                     .used_percent = percentOf(bytes[5])});
  }
  return marks;
}

std::int64_t checksumOf(const RecordPart& part, std::string_view marks) {
  Fnv1a sum;
  sum.add(static_cast<std::uint64_t>(part.marks.front().at_ms));
  sum.add(static_cast<std::uint64_t>(part.begins));
  sum.add(std::bit_cast<std::uint64_t>(part.break_seconds));
  sum.add(marks);
  sum.add(part.lines);
  return sum.value();
}

}  // namespace volorn::ctl
