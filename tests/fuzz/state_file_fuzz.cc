#include "platform/linux/state/state_file.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/fake/fake_host.h"
#include "platform/linux/state/state_reader.h"
#include "platform/linux/state/state_services.h"
#include "tests/fuzz/fuzz.h"

namespace volorn::linux_host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kJournalName = "volorn.db-journal";
constexpr double kDay = 86400.0;

// In memory where there is such a folder, since every input is synced several times.
class Folder {
 public:
  Folder() {
    std::string name = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string();
    name += "/volorn-fuzz-XXXXXX";
    require(mkdtemp(name.data()) != nullptr);
    path = name;
  }
  ~Folder() { fs::remove_all(path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  fs::path path;
};

std::string read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A run of the daemon, as far as the state file sees it. True when it was kept; false when it was told to be
// lost. Throws StateFileDamaged.
bool keep(const fs::path& folder, double now, OnDamage on_damage) {
  fake::FakeHost host;
  host.clock.seconds_since_1970 = now;
  StateDirectory directory(folder.string());
  StateFile file(directory, host.clock, host.system_log, on_damage);
  LinuxPreferencesStore preferences(file);
  LinuxMetricStore metrics(file, host.clock);
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

// A good state file, and one with the journal of a run that was cut off.
struct Sample {
  std::string database;
  std::string journal;
  std::vector<std::size_t> used;          // places in the database that are not 0
  std::vector<std::size_t> journal_used;  // and in the journal
};

std::vector<std::size_t> usedPlaces(const std::string& bytes) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != '\0') places.push_back(i);
  }
  return places;
}

Sample makeSample(const fs::path& folder, bool is_cut_off) {
  for (const char* name : {kStateFileName, kJournalName}) fs::remove(folder / name);
  for (int day = 1; day <= 3; ++day) require(keep(folder, day * kDay, OnDamage::kLose));
  Database database((folder / kStateFileName).string(), Database::Access::kReadWrite, 0);
  if (is_cut_off) {
    database.execute(
        "PRAGMA journal_mode = PERSIST; PRAGMA cache_size = 1; BEGIN IMMEDIATE; DELETE FROM metric;"
        "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 40)"
        "INSERT INTO metric_key (name) SELECT hex(zeroblob(1000)) || i FROM n;");
  }
  Sample sample{.database = read(folder / kStateFileName),
                .journal = read(folder / kJournalName),
                .used = {},
                .journal_used = {}};
  sample.used = usedPlaces(sample.database);
  sample.journal_used = usedPlaces(sample.journal);
  return sample;
}

// Four bytes of input at a time make one change: which, two bytes of where, and a value.
void change(std::string& bytes, const std::vector<std::size_t>& used, const std::uint8_t* step) {
  const std::size_t place = used[(step[1] * 256U + step[2]) % used.size()];
  const auto value = static_cast<char>(step[3]);
  if (place >= bytes.size()) return;
  switch (step[0] % 8) {
    case 0:
      bytes.resize(place);
      break;
    case 1:
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(place),
                  std::min<std::size_t>(step[3], bytes.size() - place), '\0');
      break;
    case 2:
      bytes[place] = static_cast<char>(bytes[place] + value);
      break;
    case 3:
      bytes.replace(place, 4, bytes.substr(used[step[3] % used.size()] % bytes.size(), 4));
      break;
    default:
      bytes[place] = value;
  }
}

// Space held ahead would be most of an input's time: none can be held while files may be no larger than this.
class SmallFiles {
 public:
  SmallFiles() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit small = before_;
    small.rlim_cur = 250'000;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~SmallFiles() { setrlimit(RLIMIT_FSIZE, &before_); }
  SmallFiles(const SmallFiles&) = delete;
  SmallFiles& operator=(const SmallFiles&) = delete;

 private:
  rlimit before_ = {};
};

void tryFile(const fs::path& folder) {
  const SmallFiles small_files;
  bool was_damaged = false;
  bool was_kept = false;
  try {
    was_kept = keep(folder, 4 * kDay, OnDamage::kThrow);
  } catch (const StateFileDamaged&) {
    was_damaged = true;
  }
  if (was_damaged) {
    {
      StateDirectory directory(folder.string());
      directory.enter();
      directory.setStateFileAside(Date::fromSecondsSince1970(4 * kDay));
    }
    was_kept = keep(folder, 4 * kDay, OnDamage::kLose);
    require(was_kept);
  }
  try {
    StateReader reader(folder.string());
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
  static const Folder own;
  const fs::path& folder = own.path;
  static const Sample whole = makeSample(folder, false);
  static const Sample cut_off = makeSample(folder, true);
  if (size == 0) return 0;
  const Sample& sample = data[0] % 2 == 0 ? whole : cut_off;
  std::string database = sample.database;
  std::string journal = sample.journal;
  for (std::size_t i = 1; i + 4 <= size; i += 4) {
    if (data[i] < 64) {
      change(journal, sample.journal_used, data + i);
    } else {
      change(database, sample.used, data + i);
    }
  }
  for (const auto& entry : fs::directory_iterator(folder)) fs::remove(entry);
  write(folder / kStateFileName, database);
  write(folder / kJournalName, journal);
  tryFile(folder);
  return 0;
}
