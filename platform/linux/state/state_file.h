#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/clock.h"
#include "platform/linux/state/database.h"
#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_directory.h"
#include "platform/system_log.h"

namespace volorn::linux_host {

// The state file turned out to hold something else than what we wrote.
class StateFileDamaged : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What to do when the state file turns out to be damaged.
enum class OnDamage {
  kThrow,  // StateFileDamaged, out of whatever access met it, unless something is lost already
  kLose,   // as for any other failure
};

// The one file that keeps preferences, job table and metrics. The first access opens it under the folder's
// lock and begins a transaction; commit() ends it, and a later access begins the next. Whatever fails is told
// to the log once, in this binding's own words; from then on writes are lost and what was written since the
// last commit is taken back, while reads go on as far as they can.
class StateFile {
 public:
  StateFile(StateDirectory& directory, Clock& clock, SystemLog& log, OnDamage on_damage);

  // Does `work` with the open database. False when it failed or could not be tried.
  bool read(const std::function<void(Database&)>& work);

  // The same for work that writes, which is not even tried any more after a loss.
  bool write(const std::function<void(Database&)>& work);

  // False when something was lost, in this transaction or before.
  bool commit();

  StateDirectory& directory() { return directory_; }

  // Tells one transaction from the next.
  int transaction() const { return transaction_; }

 private:
  void begin();
  void open();
  void bringUpToDate();
  bool attempt(const std::function<void()>& step);
  void lose(const std::string& reason);

  StateDirectory& directory_;
  Clock& clock_;
  SystemLog& log_;
  OnDamage on_damage_;
  std::optional<Database> database_;
  bool tried_ = false;  // to open the file
  bool lost_ = false;
  Schema schema_;  // as it was found
  int transaction_ = 0;
};

}  // namespace volorn::linux_host
