#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace volorn::ctl {

// Nobody reads the output any more.
struct OutputClosed : std::runtime_error {
  OutputClosed() : std::runtime_error("standard output: closed by its reader") {}
};

// What a screen has room for, in lines and characters of one column.
struct Room {
  std::size_t rows = 0;
  std::size_t columns = 0;
};

// An open file descriptor, not owned, that takes text at once: nothing is buffered, so no write can fail
// unnoticed when the process ends.
class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  // Throws OutputClosed, or std::system_error for every other failure.
  void write(std::string_view text);

  // Throws OutputClosed as soon as nobody reads the output any more.
  void waitUntil(std::chrono::steady_clock::time_point moment);

  bool isTerminal() const;

  // Of a terminal; 24 by 80 where it does not tell.
  Room room() const;

  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace volorn::ctl
