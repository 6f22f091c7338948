#pragma once

#include <string_view>

namespace volorn {

class SystemLog {
 public:
  virtual ~SystemLog() = default;

  // Takes one line, without its newline.
  virtual void write(std::string_view line) = 0;

  // Formats as printf does.
  [[gnu::format(printf, 2, 3)]] void log(const char* format, ...);
};

}  // namespace volorn
