#include "waketide/note.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "platform/linux/devices/read_usage_mark.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/state/note_file.h"
#include "platform/linux/state/state_file.h"
#include "platform/linux/state/state_queries.h"
#include "waketide/tell.h"

namespace volorn::waketide {
namespace {

using linux_host::Database;
using linux_host::UsageBooks;
using SteadyClock = std::chrono::steady_clock;

// The machine goes to sleep meanwhile, or off.
constexpr std::chrono::milliseconds kPatience(2'000);

class Teller : public SystemLog {
 public:
  void write(std::string_view text) override { tell(std::string(text)); }
};

std::int64_t msUntil(SteadyClock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
  return std::max<std::int64_t>(left.count(), 0);
}

void keep(Database& database, const UsageBooks& books) {
  database.prepare("REPLACE INTO usage_books (rowid, books) VALUES (1, ?)").bind(1, textOf(books)).run();
}

}  // namespace

void note(const std::string& state_directory, const Note& note) {
  umask(S_IWGRP | S_IWOTH);  // what is made here is the daemon's, too
  const SteadyClock::time_point deadline = SteadyClock::now() + kPatience;
  linux_host::StateDirectory directory(state_directory);
  linux_host::NoteFile note_file(directory.open(), kPatience.count());
  directory.setPatienceMs(msUntil(deadline));
  Teller log;
  linux_host::LinuxClock clock;
  linux_host::StateFile file(directory, clock, log, linux_host::OnDamage::kLose);
  bool is_worth_keeping = false;
  const bool done = file.write([&](Database& database) {
    const auto kept = linux_host::selectUsageBooks(database);
    // Only now: what is read while another one writes would come behind what that one read.
    linux_host::UsageMark mark = linux_host::readUsageMark("/proc", "/sys");
    mark.is_last = note.is_last;
    mark.some_lost = note.some_lost || note_file.someLost();
    const UsageBooks books = linux_host::withMark(kept, mark);
    is_worth_keeping = (kept || mark.has_battery) && linux_host::isWorthKeeping(kept, books);
    if (is_worth_keeping) keep(database, books);
  });
  if (!done || (is_worth_keeping && !file.commit())) throw std::runtime_error("the mark is lost");
  note_file.done();
}

}  // namespace volorn::waketide
