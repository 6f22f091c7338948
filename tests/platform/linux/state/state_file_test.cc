#include "platform/linux/state/state_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "platform/fake/fake_host.h"
#include "platform/linux/state/schema.h"
#include "platform/linux/state/state_reader.h"
#include "platform/linux/state/state_services.h"
#include "tests/temporary_folder.h"

namespace volorn::linux_host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDomain = "domain";

// The state bindings of one run of the daemon on the folder.
struct DaemonState {
  explicit DaemonState(const std::string& folder, double now = 1000.0, OnDamage on_damage = OnDamage::kThrow)
      : directory(folder), state_file(directory, host.clock, host.system_log, on_damage) {
    host.clock.seconds_since_1970 = now + kReferenceDateSecondsSince1970;
  }

  const std::vector<std::string>& log() const { return host.system_log.lines; }

  fake::FakeHost host;
  StateDirectory directory;
  StateFile state_file;
  LinuxPreferencesStore preferences{state_file};
  LinuxMetricStore metrics{state_file, host.clock};
  LinuxWaketide waketide{state_file};
};

void takeSnapshot(const std::string& folder, double now, std::int64_t value) {
  DaemonState run(folder, now);
  run.metrics.setScalarValue("key", value);
  run.preferences.setValue(kDomain, "value", value);
  run.preferences.synchronise(kDomain);
}

Database openByHand(const TemporaryFolder& folder) {
  return Database((folder / kStateFileName).string(), Database::Access::kReadWrite, 0);
}

mode_t modeOf(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
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

TEST(StateFileTest, OwnerAndGroupAloneCanHoldUpAWriter) {
  const TemporaryFolder folder;
  const mode_t before = umask(022);
  takeSnapshot((folder / "state").string(), 1000, 1);
  umask(before);
  EXPECT_EQ(modeOf(folder / "state"), 0755U);
  EXPECT_EQ(modeOf(folder / "state/volorn.lock"), 0600U);
  EXPECT_EQ(modeOf(folder / "state/volorn.db"), 0640U);
  EXPECT_EQ(modeOf(folder / "state/volorn.db-journal"), 0640U);
}

TEST(StateFileTest, KeepsTheNewestFourThousandSnapshots) {
  const TemporaryFolder folder;
  takeSnapshot(folder.path(), 1000, 1);
  openByHand(folder).execute(
      "WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n WHERE i < 4000)"
      "INSERT INTO snapshot SELECT i, i FROM n;"
      "INSERT INTO metric SELECT id, 1, 1, id FROM snapshot WHERE id > 1");
  takeSnapshot(folder.path(), 2000, 4001);
  Database database = openByHand(folder);
  EXPECT_EQ(database.integer("SELECT count(*) FROM snapshot"), 4000);
  EXPECT_EQ(database.integer("SELECT min(id) FROM snapshot"), 2);
  EXPECT_EQ(database.integer("SELECT min(snapshot_id) FROM metric"), 2);
  EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 4001);
}

// Ways to spoil a good state file.
struct Damage {
  const char* what;
  void (*spoil)(const TemporaryFolder& folder);
};

const Damage kDamages[] = {
    {"random bytes",
     [](const TemporaryFolder& folder) {
       std::string bytes(20000, '\0');
       std::uint32_t state = 1;
       for (char& byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
       folder.write(kStateFileName, bytes);
     }},
    {"cut within the header",
     [](const TemporaryFolder& folder) { fs::resize_file(folder / kStateFileName, 50); }},
    {"cut to one byte", [](const TemporaryFolder& folder) { fs::resize_file(folder / kStateFileName, 1); }},
    {"cut within a page",
     [](const TemporaryFolder& folder) { fs::resize_file(folder / kStateFileName, 9000); }},
    {"another program's database",
     [](const TemporaryFolder& folder) { openByHand(folder).execute("PRAGMA application_id = 1"); }},
    {"a schema older than any of ours",
     [](const TemporaryFolder& folder) { openByHand(folder).execute("PRAGMA user_version = 0"); }},
    {"a table gone",
     [](const TemporaryFolder& folder) { openByHand(folder).execute("DROP TABLE preference"); }},
    {"a table with other columns",
     [](const TemporaryFolder& folder) {
       openByHand(folder).execute("DROP TABLE metric_key; CREATE TABLE metric_key (number INTEGER)");
     }},
    {"pages overwritten",
     [](const TemporaryFolder& folder) {
       std::string bytes = folder.read(kStateFileName);
       std::fill(bytes.begin() + 4096, bytes.end(), '\xA5');
       folder.write(kStateFileName, bytes);
     }},
};

TEST(StateFileTest, ADamagedFileIsSetAsideWhole) {
  for (const auto& [what, spoil] : kDamages) {
    SCOPED_TRACE(what);
    const TemporaryFolder folder;
    takeSnapshot(folder.path(), 1000, 1);
    spoil(folder);
    const std::string spoilt = folder.read(kStateFileName);
    const std::string journal = folder.read("volorn.db-journal");
    {
      DaemonState run(folder.path(), 2000);
      const auto use = [&] {
        run.preferences.copyValue(kDomain, "value");
        run.metrics.setScalarValue("key", 2);
        run.preferences.synchronise(kDomain);
      };
      EXPECT_THROW(use(), StateFileDamaged);
      run.directory.setStateFileAside(Date::fromSecondsSinceReferenceDate(0));
    }
    EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z"), spoilt);
    EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z-journal"), journal);
    takeSnapshot(folder.path(), 2000, 2);
    EXPECT_EQ(StateReader(folder.path()).newestSnapshot()->metrics.at(0).second, 2);
  }
}

TEST(StateFileTest, NothingSetAsideIsReplaced) {
  const TemporaryFolder folder;
  for (const char* content : {"first file of no database", "second file of no database"}) {
    folder.write(kStateFileName, content);
    DaemonState run(folder.path());
    EXPECT_THROW(run.preferences.copyValue(kDomain, "value"), StateFileDamaged);
    run.directory.setStateFileAside(Date::fromSecondsSinceReferenceDate(0));
  }
  EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z"), "first file of no database");
  EXPECT_EQ(folder.read("volorn.db.damaged-20010101T000000Z-2"), "second file of no database");
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

// Circumstances under which a run keeps nothing, and what its log says of them.
struct Loss {
  const char* what;
  void (*prepare)(const TemporaryFolder& folder);
  const char* log_part;
};

const Loss kLosses[] = {
    {"newer schema",
     [](const TemporaryFolder& folder) { openByHand(folder).execute("PRAGMA user_version = 2"); },
     "newer program"},
    {"folder in place of the file",
     [](const TemporaryFolder& folder) {
       fs::remove(folder / kStateFileName);
       fs::create_directory(folder / kStateFileName);
     },
     "not a regular file"},
    {"link in place of the file",
     [](const TemporaryFolder& folder) {
       fs::rename(folder / kStateFileName, folder / "elsewhere");
       fs::create_symlink("elsewhere", folder / kStateFileName);
     },
     "not a regular file"},
    {"FIFO in place of the file",
     [](const TemporaryFolder& folder) {
       fs::remove(folder / kStateFileName);
       mkfifo((folder / kStateFileName).c_str(), 0600);
     },
     "not a regular file"},
    {"folder in place of the lock",
     [](const TemporaryFolder& folder) {
       fs::remove(folder / "volorn.lock");
       fs::create_directory(folder / "volorn.lock");
     },
     "volorn.lock"},
    {"folder in place of the journal",
     [](const TemporaryFolder& folder) {
       fs::remove(folder / "volorn.db-journal");
       fs::create_directory(folder / "volorn.db-journal");
     },
     "disk I/O error"},
};

TEST(StateFileTest, ALossIsToldOnceAndDestroysNothing) {
  for (const auto& [what, prepare, log_part] : kLosses) {
    SCOPED_TRACE(what);
    const TemporaryFolder folder;
    takeSnapshot(folder.path(), 1000, 1);
    prepare(folder);
    const std::string before = folder.read(kStateFileName);
    DaemonState run(folder.path());
    run.preferences.copyValue(kDomain, "value");
    run.preferences.setValue(kDomain, "value", std::int64_t{2});
    run.metrics.setScalarValue("key", 2);
    run.preferences.synchronise(kDomain);
    ASSERT_EQ(run.log().size(), 1U);
    EXPECT_NE(run.log()[0].find(log_part), std::string::npos) << run.log()[0];
    EXPECT_EQ(folder.read(kStateFileName), before);
  }
}

TEST(StateFileTest, AFileWhereTheFolderShouldBe) {
  const TemporaryFolder folder;
  folder.write("file", "kept");
  for (const char* path : {"file", "file/below"}) {
    DaemonState run((folder / path).string());
    run.preferences.setValue(kDomain, "value", std::int64_t{1});
    ASSERT_EQ(run.log().size(), 1U);
    EXPECT_NE(run.log()[0].find("Not a directory"), std::string::npos) << run.log()[0];
  }
  EXPECT_EQ(folder.read("file"), "kept");
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
