#include "platform/linux/state/state_file.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "platform/fake/fake_host.h"
#include "platform/linux/state/state_reader.h"
#include "platform/linux/state/state_services.h"
#include "tests/fuzz/fuzz.h"
#include "tests/temporary_folder.h"

namespace volorn::linux_host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kJournalName = "volorn.db-journal";
constexpr double kDay = 86400.0;

// A run of the daemon, as far as the state file sees it. True when it was kept; false when it was told to be
// lost. Throws StateFileDamaged.
bool keep(const TemporaryFolder& folder, double now, OnDamage on_damage) {
  fake::FakeHost host;
  host.clock.seconds_since_1970 = now;
  StateDirectory directory(folder.path());
  StateFile file(directory, host.clock, host.system_log, on_damage);
  LinuxPreferencesStore preferences(file);
  StandIns stand_ins;
  stand_ins.note("another", false);
  LinuxMetricStore metrics(file, host.clock, stand_ins);
  LinuxWaketide waketide(file);
  preferences.copyValue("domain", "date");
  waketide.WaketideCopyJob("job");
  preferences.getIntegerValue("domain", "day");
  preferences.setValue("domain", "date", Date::fromSecondsSince1970(now));
  waketide.WaketideAddJob("job", {.window_start_time = now, .window_end_time = now + kDay});
  for (const char* key : {"a", "the key of a metric", "another"}) metrics.setScalarValue(key, 1234567);
  preferences.setValue("domain", "day", static_cast<std::int64_t>(now / kDay));
  preferences.synchronise("domain");
  return host.system_log.lines.empty();
}

enum class Kind { kWhole, kOfTheFirstVersion, kCutOff };

struct Bytes {
  explicit Bytes(std::string content) : all(std::move(content)) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (all[i] != '\0') used.push_back(i);
    }
  }
  std::string all;
  std::vector<std::size_t> used;  // places of those that are not 0
};

// A good state file, and what a run that was cut off left beside it.
struct Sample {
  Bytes database;
  Bytes journal;
};

Sample makeSample(const TemporaryFolder& folder, Kind kind) {
  for (const char* name : {kStateFileName, kJournalName}) fs::remove(folder / name);
  for (int day = 1; day <= 3; ++day) require(keep(folder, day * kDay, OnDamage::kLose));
  Database database((folder / kStateFileName).string(), Database::Access::kReadWrite, 0);
  if (kind == Kind::kOfTheFirstVersion) {
    database.execute(
        "PRAGMA journal_mode = PERSIST; DROP TABLE usage_books; DROP TABLE file; DROP TABLE stand_in; PRAGMA "
        "user_version = 1");
  } else if (kind == Kind::kCutOff) {
    database.execute(
        "PRAGMA journal_mode = PERSIST; PRAGMA cache_size = 1; BEGIN IMMEDIATE; DELETE FROM metric;"
        "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 40)"
        "INSERT INTO metric_key (name) SELECT hex(zeroblob(1000)) || i FROM n;");
  }
  return {.database = Bytes(folder.read(kStateFileName)), .journal = Bytes(folder.read(kJournalName))};
}

// Four bytes of input at a time make one change: which, two bytes of where, and a value.
void change(Bytes& bytes, const std::uint8_t* step) {
  std::string& all = bytes.all;
  const std::size_t place = bytes.used[(step[1] * 256U + step[2]) % bytes.used.size()];
  if (place >= all.size()) return;
  switch (step[0] % 8) {
    case 0:
      all.resize(place);
      break;
    case 1:
      std::fill_n(all.begin() + static_cast<std::ptrdiff_t>(place),
                  std::min<std::size_t>(step[3], all.size() - place), '\0');
      break;
    case 2:
      all.replace(place, 4, all.substr(bytes.used[step[3] % bytes.used.size()] % all.size(), 4));
      break;
    default:
      all[place] = static_cast<char>(step[3]);
  }
}

void limitFilesTo(rlim_t bytes) {
  rlimit limit = {};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = std::min(bytes, limit.rlim_max);
  setrlimit(RLIMIT_FSIZE, &limit);
}

void tryFile(const TemporaryFolder& folder) {
  bool was_damaged = false;
  bool was_kept = false;
  try {
    was_kept = keep(folder, 4 * kDay, OnDamage::kThrow);
  } catch (const StateFileDamaged&) {
    was_damaged = true;
  }
  if (was_damaged) {
    {
      StateDirectory directory(folder.path());
      directory.enter();
      directory.setStateFileAside(Date::fromSecondsSince1970(4 * kDay));
    }
    was_kept = keep(folder, 4 * kDay, OnDamage::kLose);
    require(was_kept);
  }
  try {
    StateReader reader(folder.path());
    const auto snapshots = reader.newestSnapshots(10);
    const auto date = reader.preference("domain", "date");
    const auto job = reader.job("job");
    if (was_damaged) require(snapshots.size() == 1 && snapshots[0].metrics.size() == 3 && date && job);
  } catch (const StateUnreadable&) {
    require(!was_damaged);
  }
}

}  // namespace
}  // namespace volorn::linux_host

// A state file with some of its bytes changed, or the journal beside it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn::linux_host;
  // Every input is synced several times, which is quick where the files are in memory.
  [[maybe_unused]] static const bool is_quick =
      fs::is_directory("/dev/shm") && setenv("TMPDIR", "/dev/shm", 1) == 0;
  static const volorn::TemporaryFolder folder;
  static const Sample samples[] = {makeSample(folder, Kind::kWhole), makeSample(folder, Kind::kCutOff),
                                   makeSample(folder, Kind::kOfTheFirstVersion)};
  if (size == 0) return 0;
  Sample sample = samples[data[0] % std::size(samples)];
  for (std::size_t i = 1; i + 4 <= size; i += 4) {
    change(data[i] < 64 ? sample.journal : sample.database, data + i);
  }
  for (const auto& entry : fs::directory_iterator(folder.path())) fs::remove(entry);
  folder.write(kStateFileName, sample.database.all);
  folder.write(kJournalName, sample.journal.all);
  // Space held ahead would be most of an input's time: none can be held while files may be no larger than
  // this.
  std::signal(SIGXFSZ, SIG_IGN);
  limitFilesTo(250'000);
  tryFile(folder);
  limitFilesTo(RLIM_INFINITY);
  return 0;
}
