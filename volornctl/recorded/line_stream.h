#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "volornctl/recorded/record_part.h"

namespace volorn::ctl {

// Compresses the lines of a block, one after the other.
class LineCompressor {
 public:
  // Throws std::bad_alloc.
  LineCompressor();
  ~LineCompressor();

  // The first line of a block decides how far back what follows is compared.
  void begin(std::size_t line_bytes);

  // Throws std::runtime_error, as what follows.
  void add(std::string_view line);

  // What has been added since the last time; with it and all before it every line is had. `is_last`: of the
  // block.
  std::string take(bool is_last);

 private:
  struct Context;
  void run(std::string_view text, int how);

  std::unique_ptr<Context> context_;
  std::string compressed_;
};

// Appends the text of the next bytes of a stream. Bounded in memory whatever the bytes are.
class LineExpander {
 public:
  LineExpander();
  ~LineExpander();

  // Appends to `text` what the bytes hold, in all no more than `most_bytes`. False where they are no such
  // stream or hold more; then no further byte of this stream may be given.
  bool expand(std::string_view bytes, std::string& text, std::size_t most_bytes = kMostBlockBytes);

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace volorn::ctl
