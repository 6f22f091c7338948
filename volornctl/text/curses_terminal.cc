#include "volornctl/text/curses_terminal.h"

#include <langinfo.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <optional>
#include <string>

#include "volornctl/text/held_terminal.h"

// Its macros would take names of ours.
#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <term.h>
#undef columns
#undef lines

namespace volorn::ctl {
namespace {

constexpr int kMostErrors = 10;  // of reading keys, one after another: then the keyboard has gone

// A capability's text without the pauses that old terminals need; empty where the terminal has none.
std::string capability(const char* name) {
  const char* text = tigetstr(name);
  // The library's way to say that it is no text.
  constexpr auto kNoText = static_cast<std::intptr_t>(-1);
  if (!text || reinterpret_cast<std::intptr_t>(text) == kNoText) return "";
  std::string result;
  for (const char* at = text; *at; ++at) {
    const char* end = std::strncmp(at, "$<", 2) == 0 ? std::strchr(at, '>') : nullptr;
    if (end) {
      at = end;
    } else {
      result += *at;
    }
  }
  return result;
}

std::optional<KeyName> nameOf(wint_t code) {
  switch (code) {
    case KEY_UP:
      return KeyName::kUp;
    case KEY_DOWN:
      return KeyName::kDown;
    case KEY_LEFT:
      return KeyName::kLeft;
    case KEY_RIGHT:
      return KeyName::kRight;
    case KEY_PPAGE:
      return KeyName::kPageUp;
    case KEY_NPAGE:
      return KeyName::kPageDown;
    case KEY_HOME:
      return KeyName::kHome;
    case KEY_END:
      return KeyName::kEnd;
    case KEY_ENTER:
      return KeyName::kEnter;
    case KEY_BACKSPACE:
      return KeyName::kBackspace;
    default:
      return std::nullopt;
  }
}

std::optional<Key> keyOf(wint_t character) {
  switch (character) {
    case L'\r':
    case L'\n':
      return Key{.name = KeyName::kEnter};
    case 27:
      return Key{.name = KeyName::kEscape};
    case 8:
    case 127:
      return Key{.name = KeyName::kBackspace};
    default:
      break;
  }
  if (character < L' ') return std::nullopt;
  char bytes[MB_LEN_MAX + 1] = {};
  std::mbstate_t state = {};
  const std::size_t length = std::wcrtomb(bytes, static_cast<wchar_t>(character), &state);
  if (length == static_cast<std::size_t>(-1)) return std::nullopt;
  return Key{.name = KeyName::kCharacter, .text = std::string(bytes, length)};
}

enum Pair : short { kAlarmPair = 1, kBusyPair, kGraphPair };

class Terminal : public CursesTerminal {
 public:
  Terminal(int keyboard_fd, Output& output, bool has_colour)
      : output_(output), held_(keyboard_fd, output.fd(), leaveText()) {
    keyboard_ = fdopen(dup(keyboard_fd), "r");
    screen_file_ = fdopen(dup(output.fd()), "w");
    screen_ = keyboard_ && screen_file_ ? newterm(nullptr, screen_file_, keyboard_) : nullptr;
    if (!screen_) return;
    fitRoom();  // whatever the environment says of it
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    has_colour_ = has_colour && has_colors() && start_color() == OK;
    if (!has_colour_) return;
    use_default_colors();
    init_pair(kAlarmPair, COLOR_RED, -1);
    init_pair(kBusyPair, COLOR_YELLOW, -1);
    init_pair(kGraphPair, COLOR_CYAN, -1);
  }

  ~Terminal() override {
    if (screen_) {
      endwin();
      delscreen(screen_);
    }
    if (keyboard_) std::fclose(keyboard_);
    if (screen_file_) std::fclose(screen_file_);
  }

  bool isOpen() const { return screen_ != nullptr; }

  bool isUnicode() const override { return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0; }

  Room room() const override { return output_.room(); }

  void draw(const Frame& frame) override {
    werase(stdscr);
    int row = 0;
    for (const FrameLine& line : frame.lines) {
      wmove(stdscr, row++, 0);
      for (const Span& span : line) {
        wattrset(stdscr, static_cast<int>(attributesOf(span.style)));
        waddstr(stdscr, span.text.c_str());
      }
    }
    wrefresh(stdscr);
  }

  Event wait(const std::vector<int>& fds) override {
    const HeldTerminal::Event event = held_.wait(fds);
    if (event.is_to_stop) {
      endwin();
      held_.stop();
      reset_prog_mode();
    }
    if (event.is_resized || event.is_to_stop) {
      fitRoom();
      clearok(stdscr, TRUE);
    }
    Event result{.keys = {}, .is_gone = event.is_gone};
    if (event.has_keys) readKeys(result);
    return result;
  }

 private:
  static std::string leaveText() {
    std::string back = capability("rmcup");
    // Where the screen stays as it is, its last line makes room for what follows.
    if (back.empty()) back = "\r" + capability("el");
    return capability("sgr0") + capability("cnorm") + capability("rmkx") + back;
  }

  void fitRoom() {
    const Room now = Terminal::room();
    resizeterm(static_cast<int>(now.rows), static_cast<int>(now.columns));
  }

  void readKeys(Event& result) {
    bool has_any = false;
    wint_t code = 0;
    for (int kind = wget_wch(stdscr, &code); kind != ERR; kind = wget_wch(stdscr, &code)) {
      has_any = true;
      if (kind == KEY_CODE_YES) {
        if (const auto name = nameOf(code)) result.keys.push_back({.name = *name});
      } else if (std::optional<Key> key = keyOf(code)) {
        result.keys.push_back(std::move(*key));
      }
    }
    errors_ = has_any ? 0 : errors_ + 1;
    if (errors_ == kMostErrors) result.is_gone = true;
  }

  attr_t attributesOf(Style style) const {
    const auto colour = [this](short pair) {
      return has_colour_ ? static_cast<attr_t>(COLOR_PAIR(pair)) : A_NORMAL;
    };
    switch (style) {
      case Style::kPlain:
        return A_NORMAL;
      case Style::kStrong:
        return A_BOLD;
      case Style::kFaint:
        return has_colour_ ? A_DIM : A_NORMAL;
      case Style::kAlarm:
        return A_BOLD | colour(kAlarmPair);
      case Style::kBusy:
        return colour(kBusyPair);
      case Style::kGraph:
        return colour(kGraphPair);
      case Style::kHeading:
        return A_REVERSE;
      case Style::kSelected:
        return A_REVERSE | A_BOLD;
    }
    return A_NORMAL;
  }

  Output& output_;
  HeldTerminal held_;
  std::FILE* keyboard_ = nullptr;
  std::FILE* screen_file_ = nullptr;
  SCREEN* screen_ = nullptr;
  bool has_colour_ = false;
  int errors_ = 0;
};

}  // namespace

bool CursesTerminal::isBuilt() {
  return true;
}

std::unique_ptr<CursesTerminal> CursesTerminal::open(int keyboard_fd, Output& output, bool has_colour) {
  if (!output.isTerminal()) return nullptr;
  std::setlocale(LC_CTYPE, "");
  int problem = 0;
  // Asked before anything is changed: without a name of its own, or a cursor that moves, it is a plain one.
  if (setupterm(nullptr, output.fd(), &problem) != OK || capability("cup").empty()) return nullptr;
  auto terminal = std::make_unique<Terminal>(keyboard_fd, output, has_colour);
  if (!terminal->isOpen()) return nullptr;
  return terminal;
}

}  // namespace volorn::ctl
