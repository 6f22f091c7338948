#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace volorn::ctl {

enum class Style : std::uint8_t { kPlain, kStrong, kFaint, kAlarm, kBusy, kGraph, kHeading, kSelected };

struct Span {
  std::string text;  // escaped
  Style style = Style::kPlain;
};

using FrameLine = std::vector<Span>;

// What a screen shows; no wider and no longer than it.
struct Frame {
  std::vector<FrameLine> lines;
};

enum class KeyName : std::uint8_t {
  kCharacter,
  kUp,
  kDown,
  kLeft,
  kRight,
  kPageUp,
  kPageDown,
  kHome,
  kEnd,
  kEnter,
  kEscape,
  kBackspace,
};

struct Key {
  KeyName name = KeyName::kCharacter;
  std::string text = {};  // of a character, in UTF-8
};

}  // namespace volorn::ctl
