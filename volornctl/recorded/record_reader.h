#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/state/database.h"
#include "volornctl/recorded/record_part.h"

namespace volorn::ctl {

// Reads a record, from whatever machine, without writing a byte to it or beside it. Nothing in it is trusted.
// Each call holds the file for one block at most. Every failure is a std::runtime_error whose text is for
// people.
class RecordReader {
 public:
  explicit RecordReader(const std::string& path);

  // Looks for what has been written since. True where there is any.
  bool refresh();

  // All, in the order in which they were written: a clock may have been set back between two.
  const std::vector<RecordedSample>& samples() const { return samples_; }

  // The lines of one block. A line that is missing is empty: the block is damaged there, or has made room.
  struct Block {
    std::size_t begin = 0;  // of its samples among all
    std::size_t end = 0;
    std::vector<std::string_view> lines = {};  // of each
    std::string text = {};
  };

  // That of this sample. The same until another is asked for.
  const Block& blockOf(std::size_t sample);

 private:
  struct Span {
    std::int64_t block;  // id of its first part
    std::size_t begin;   // of its samples
    std::size_t end;
  };
  template <typename Work>
  auto guarded(Work work);
  bool readMarks();
  std::vector<RecordPart> readParts(std::int64_t block);

  std::string path_;
  std::optional<linux_host::Database> database_;
  std::vector<RecordedSample> samples_;
  std::vector<Span> spans_;  // of the blocks
  std::int64_t last_id_ = 0;
  Block block_;
};

}  // namespace volorn::ctl
