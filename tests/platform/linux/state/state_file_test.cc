#include "platform/linux/state/state_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <random>
#include <string>

#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_reader.h"
#include "platform/snapshot_keys.h"
#include "tests/platform/linux/state/daemon_state.h"
#include "tests/temporary_folder.h"

namespace volorn::linux_host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDomain = "domain";

void takeSnapshot(const std::string& folder, double now, std::int64_t value) {
  DaemonState run(folder, now);
  run.metrics.setScalarValue("key", value);
  run.preferences.setValue(kDomain, "value", value);
  run.preferences.synchronise(kDomain);
}

Database openByHand(const TemporaryFolder& folder) {
  return Database((folder / kStateFileName).string(), Database::Access::kReadWrite, 0);
}

std::string identityOf(const TemporaryFolder& folder) {
  Database database = openByHand(folder);
  Statement select = database.prepare("SELECT identity FROM file");
  EXPECT_TRUE(select.step());
  return select.text(0);
}

TEST(StateFileTest, KeepsWhatARunSynchronised) {
  const TemporaryFolder folder;
  const std::string path = (folder / "made/on/the/way").string();
  const Date date = Date::fromSecondsSinceReferenceDate(749779200.123456);
  {
    DaemonState run(path);
    EXPECT_EQ(run.preferences.copyValue(kDomain, "date"), std::nullopt);
    EXPECT_EQ(run.waketide.WaketideCopyJob("job"), std::nullopt);
    run.preferences.setValue(kDomain, "date", Date::fromSecondsSinceReferenceDate(1));
    run.preferences.setValue(kDomain, "date", date);
    run.preferences.setValue(kDomain, "integer", std::int64_t{-7});
    run.preferences.setValue("another", "integer", std::int64_t{8});
    run.waketide.WaketideAddJob("job", {.window_start_time = 1.5, .window_end_time = 2.5});
    run.metrics.setScalarValue("b", 2);
    run.metrics.setScalarValue("a", INT64_MIN);
    run.metrics.setScalarValue("b", 3);
    run.preferences.synchronise(kDomain);
    EXPECT_EQ(run.log(), std::vector<std::string>{});
  }
  DaemonState run(path);
  EXPECT_EQ(run.preferences.copyValue(kDomain, "date"), PreferenceValue{date});
  EXPECT_FALSE(run.preferences.getIntegerValue(kDomain, "date").valid);
  EXPECT_EQ(run.preferences.getIntegerValue(kDomain, "integer").value, -7);
  EXPECT_EQ(run.waketide.WaketideCopyJob("job")->window_end_time, 2.5);
  const auto snapshot = StateReader(path).newestSnapshot();
  ASSERT_TRUE(snapshot);
  EXPECT_EQ(snapshot->taken_at.secondsSinceReferenceDate(), 1000.0);
  using Metrics = std::vector<std::pair<std::string, std::int64_t>>;
  EXPECT_EQ(snapshot->metrics, (Metrics{{"b", 2}, {"a", INT64_MIN}, {"b", 3}}));
}

TEST(StateFileTest, NothingOfAnEndedTransactionReachesTheNext) {
  const TemporaryFolder folder;
  {
    DaemonState run(folder.path());
    run.metrics.setScalarValue("key", 1);
    run.preferences.synchronise(kDomain);
    run.metrics.setScalarValue("key", 2);  // begins a transaction and a snapshot of its own
    run.preferences.synchronise(kDomain);
    run.metrics.setScalarValue("key", 3);
    run.preferences.setValue(kDomain, "value", std::int64_t{3});
    // A reader sees what is committed, and holds nothing up.
    EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 2);
  }
  EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 2);
  EXPECT_EQ(StateReader(folder.path()).preference(kDomain, "value"), std::nullopt);
  EXPECT_EQ(openByHand(folder).integer("SELECT count(*) FROM snapshot"), 2);
}

TEST(StateFileTest, AFileOfTheFirstVersionIsReadAsItIsAndUpgradedByTheFirstWriter) {
  const TemporaryFolder folder;
  using Keys = std::vector<std::string>;
  const auto run = [&](std::vector<std::pair<std::string_view, std::int64_t>> metrics) {
    DaemonState state(folder.path());
    state.stand_ins.note(snapshot_key::kBacklight, false);
    for (const auto& [key, value] : metrics) state.metrics.setScalarValue(key, value);
    state.preferences.synchronise(kDomain);
    EXPECT_EQ(state.log(), Keys{});
  };
  using namespace snapshot_key;
  run({{kStandby, -100}, {kFullyChargedOnce, 0}, {kCharged, -10000}, {kBacklight, 0}});
  run({{kUsage, 0}, {kFullyChargedOnce, 0}, {kCharged, 0}, {kPluggedIn, 0}});
  openByHand(folder).execute(
      "DROP TABLE usage_books; DROP TABLE file; DROP TABLE stand_in; PRAGMA user_version = 1");
  DaemonState(folder.path()).preferences.copyValue(kDomain, "value");  // writes nothing
  const auto unknown = [&] {
    std::vector<Keys> all;
    for (const StoredSnapshot& snapshot : StateReader(folder.path()).newestSnapshots(3)) {
      all.push_back(snapshot.unknown);
    }
    return all;
  };
  const Keys failed = {std::string(kStandby), std::string(kFullyChargedOnce), std::string(kCharged)};
  EXPECT_EQ(unknown(), (std::vector<Keys>{failed, {}}));
  EXPECT_EQ(openByHand(folder).integer("PRAGMA user_version"), 1);
  // From now on a negative value is one like any other.
  run({{kBacklight, 0}, {kStandby, -100}, {kFullyChargedOnce, 0}});
  EXPECT_EQ(unknown(), (std::vector<Keys>{failed, {}, {std::string(kBacklight)}}));
  const std::string identity = identityOf(folder);
  run({});
  run({{kBacklight, 0}});
  EXPECT_EQ(identityOf(folder), identity);
}

TEST(StateFileTest, KeepsTheNewestFourThousandSnapshots) {
  const TemporaryFolder folder;
  takeSnapshot(folder.path(), 1000, 1);
  openByHand(folder).execute(
      "WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n WHERE i < 4000)"
      "INSERT INTO snapshot SELECT i, i FROM n;"
      "INSERT INTO metric SELECT id, 1, 1, id FROM snapshot WHERE id > 1;"
      "INSERT INTO stand_in SELECT id, 1 FROM snapshot");
  takeSnapshot(folder.path(), 2000, 4001);
  Database database = openByHand(folder);
  EXPECT_EQ(database.integer("SELECT count(*) FROM snapshot"), 4000);
  for (const char* oldest : {"SELECT min(id) FROM snapshot", "SELECT min(snapshot_id) FROM metric",
                             "SELECT min(snapshot_id) FROM stand_in"}) {
    EXPECT_EQ(database.integer(oldest), 2);
  }
  EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 4001);
}

using Change = std::function<void(const TemporaryFolder& folder)>;

Change executes(std::string statements) {
  return [=](const TemporaryFolder& folder) { openByHand(folder).execute(statements.c_str()); };
}

Change edits(void (*edit)(std::string& bytes)) {
  return [=](const TemporaryFolder& folder) {
    std::string bytes = folder.read(kStateFileName);
    edit(bytes);
    folder.write(kStateFileName, bytes);
  };
}

Change cutTo(std::uintmax_t bytes) {
  return [=](const TemporaryFolder& folder) { fs::resize_file(folder / kStateFileName, bytes); };
}

// From this place on other bytes of this length, without any order.
Change overwrites(std::size_t place, std::size_t bytes) {
  return [=](const TemporaryFolder& folder) {
    std::string content = folder.read(kStateFileName).substr(0, place);
    std::uint32_t state = 1;
    while (content.size() < place + bytes) {
      content += static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    }
    folder.write(kStateFileName, content);
  };
}

Change puts(void (*make)(const fs::path& path), const char* in_place_of = kStateFileName) {
  return [=](const TemporaryFolder& folder) {
    fs::rename(folder / in_place_of, folder / "elsewhere");
    make(folder / in_place_of);
  };
}

void makeFolder(const fs::path& path) {
  fs::create_directory(path);
}

const struct {
  const char* what;
  Change change;
  const char* log_part = nullptr;  // none: it is damage
} kChanges[] = {
    {"random bytes", overwrites(0, 20000)},
    {"pages overwritten", overwrites(4096, 40000)},
    {"cut within the header", cutTo(50)},
    {"cut to one byte", cutTo(1)},
    {"cut within a page", cutTo(9000)},
    {"another program's database", executes("PRAGMA application_id = 1")},
    {"a schema older than any of ours", executes("PRAGMA user_version = 0")},
    {"a trigger that does not end",
     executes("CREATE TRIGGER t AFTER INSERT ON preference BEGIN UPDATE upkeep SET done_at = (WITH RECURSIVE "
              "n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n) SELECT max(i) FROM n); END")},
    {"a schema that is no SQL",
     edits([](auto& bytes) { bytes[bytes.find("CREATE TABLE job (") + 17] = '['; })},
    {"a header that lets nobody write", edits([](auto& bytes) { bytes[18] = 3; })},
    {"a table gone", executes("DROP TABLE preference")},
    {"a table with other columns",
     executes("DROP TABLE metric_key; CREATE TABLE metric_key (number INTEGER)")},

    {"newer schema", executes("PRAGMA user_version = " + std::to_string(kSchemaVersion + 1)),
     "newer program"},
    {"folder", puts(makeFolder), "not a regular file"},
    {"link", puts([](const auto& path) { fs::create_symlink("elsewhere", path); }), "not a regular file"},
    {"FIFO", puts([](const auto& path) { mkfifo(path.c_str(), 0600); }), "not a regular file"},
    {"folder in place of the lock", puts(makeFolder, "volorn.lock"), "volorn.lock"},
    {"folder in place of the journal", puts(makeFolder, "volorn.db-journal"), "disk I/O error"},
};

// Damage is thrown, and the file set aside whole; any other loss is told once. Neither destroys anything.
TEST(StateFileTest, AFileThatCannotBeUsedIsKept) {
  for (const auto& [what, change, log_part] : kChanges) {
    SCOPED_TRACE(what);
    const TemporaryFolder folder;
    takeSnapshot(folder.path(), 1000, 1);
    const std::string identity = identityOf(folder);
    change(folder);
    const std::string before = folder.read(kStateFileName);
    const std::string journal = folder.read("volorn.db-journal");
    {
      DaemonState run(folder.path(), 2000);
      const auto use = [&] {
        run.preferences.copyValue(kDomain, "value");
        run.preferences.setValue(kDomain, "value", std::int64_t{2});
        run.metrics.setScalarValue("key", 2);
        run.preferences.synchronise(kDomain);
      };
      if (log_part) {
        use();
        ASSERT_EQ(run.log().size(), 1U);
        EXPECT_NE(run.log()[0].find(log_part), std::string::npos) << run.log()[0];
        EXPECT_EQ(folder.read(kStateFileName), before);
        continue;
      }
      EXPECT_THROW(use(), StateFileDamaged);
      folder.write("volorn.db.damaged-20010101T000000Z", "of another day");
      run.directory.setStateFileAside(Date::fromSecondsSinceReferenceDate(0));
    }
    EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z"), "of another day");
    EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z-2"), before);
    EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z-2-journal"), journal);
    takeSnapshot(folder.path(), 2000, 2);
    EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 2);
    EXPECT_NE(identityOf(folder), identity);
  }
}

// Whatever bytes of file and journal are others, a run is kept or told to be lost, or it is on a fresh file.
TEST(StateFileTest, AnyDamageIsTakenForDamage) {
  const TemporaryFolder original;
  takeSnapshot(original.path(), 1000, 1);
  openByHand(original).execute("PRAGMA journal_mode = PERSIST; DELETE FROM preference");
  std::mt19937 random(1);
  for (int attempt = 0; attempt < 100; ++attempt) {
    SCOPED_TRACE(attempt);
    const TemporaryFolder folder;
    for (const char* name : {kStateFileName, "volorn.db-journal"}) {
      std::string bytes = original.read(name);
      for (int change = 0; change < 8; ++change) bytes[random() % bytes.size()] = static_cast<char>(random());
      if (attempt % 4 == 0) bytes.resize(random() % bytes.size());
      folder.write(name, bytes);
    }
    bool was_damaged = false;
    try {
      takeSnapshot(folder.path(), 2000, 2);
    } catch (const StateFileDamaged&) {
      was_damaged = true;
      StateDirectory directory(folder.path());
      directory.enter();
      directory.setStateFileAside(Date::fromSecondsSinceReferenceDate(2000));
    }
    if (was_damaged) takeSnapshot(folder.path(), 2000, 2);
    try {
      const auto newest = StateReader(folder.path()).newestSnapshot();
      if (was_damaged) {
        EXPECT_EQ(newest.value().metrics.at(0).second, 2);
      }
    } catch (const StateUnreadable&) {
      EXPECT_FALSE(was_damaged);
    }
  }
}

// A page that no statement of a run meets is damaged without being noticed until it is looked for.
TEST(StateFileTest, LooksForHiddenDamageEveryThirtyDays) {
  constexpr double kDay = 86400.0;
  const TemporaryFolder folder;
  takeSnapshot(folder.path(), 0, 1);
  // The name stands in its table and in the index of names, by which alone it is looked up.
  std::string bytes = folder.read(kStateFileName);
  bytes.replace(bytes.find("\x13key") + 1, 3, "kez");
  folder.write(kStateFileName, bytes);
  takeSnapshot(folder.path(), 29.9 * kDay, 2);
  for (const double now : {30 * kDay, -1.0 /* the clock went back */}) {
    DaemonState run(folder.path(), now);
    EXPECT_THROW(run.preferences.copyValue(kDomain, "value"), StateFileDamaged) << now;
  }
}

// Another program's lock within the file: reads go on, and the plan in the file is still heeded.
TEST(StateFileTest, ReadsGoOnAfterALoss) {
  const TemporaryFolder folder;
  takeSnapshot(folder.path(), 1000, 1);
  DaemonState run(folder.path());
  run.state_file.write([](Database&) { throw SqliteError(SQLITE_FULL, "database or disk is full"); });
  run.preferences.setValue(kDomain, "value", std::int64_t{2});
  EXPECT_EQ(run.preferences.getIntegerValue(kDomain, "value").value, 1);
  run.preferences.synchronise(kDomain);
  EXPECT_EQ(StateReader(folder.path()).preference(kDomain, "value"), PreferenceValue{std::int64_t{1}});
  ASSERT_EQ(run.log().size(), 1U);
  EXPECT_NE(run.log()[0].find("database or disk is full; nothing of this run is kept"), std::string::npos);
}

}  // namespace
}  // namespace volorn::linux_host
