#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "platform/linux/file_descriptor.h"
#include "platform/names.h"
#include "platform/snapshot_keys.h"
#include "tests/platform/linux/state/daemon_state.h"
#include "tests/temporary_folder.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/program.h"

namespace volorn::ctl {
namespace {

namespace fs = std::filesystem;
using linux_host::Database;

constexpr double kTime = 1795406706.0;  // 2026-11-23 04:05:06 UTC

// A file in memory to print to.
class Paper {
 public:
  int fd() const { return fd_.get(); }

  std::string text() const {
    std::string text(static_cast<std::size_t>(lseek(fd(), 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fd(), text.data(), text.size(), 0), std::ssize(text));
    return text;
  }

 private:
  linux_host::FileDescriptor fd_{memfd_create("paper", MFD_CLOEXEC)};
};

struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};

Outcome volornctl(const std::string& folder, std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "volornctl");
  arguments.insert(arguments.end(), {"--state-dir", folder.c_str()});
  const Paper output, errors;
  Output output_to(output.fd()), errors_to(errors.fd());
  const int status = runProgram(static_cast<int>(arguments.size()), arguments.data(),
                                {.output = output_to,
                                 .errors = errors_to,
                                 .colour = false,
                                 .state_directory = {},
                                 .moment = {Date::fromSecondsSince1970(kTime), [](std::int64_t) {
                                              return ZoneOffset{0, "UTC"};
                                            }}});
  return {status, output.text(), errors.text()};
}

// What a daemon keeps, through its own bindings.
void keep(const std::string& folder, bool with_snapshot) {
  linux_host::DaemonState run(folder, kTime + 0.75 - kReferenceDateSecondsSince1970);
  run.stand_ins.note(snapshot_key::kThermalLevel, false);
  run.preferences.setValue(kDomain, kLastWakeupTimeKey, Date::fromSecondsSince1970(kTime));
  // Of the wrong kind.
  run.preferences.setValue(kDomain, kNextPlannedWakeupTimeKey, std::int64_t{1});
  run.preferences.setValue(kDomain, kLastLogDumpedDayKey, std::int64_t{20780});
  run.waketide.WaketideAddJob(kJobName, {.window_start_time = -0.5, .window_end_time = 1e300});
  if (with_snapshot) {
    run.metrics.setScalarValue(snapshot_key::kThermalLevel, -4);
    run.metrics.setScalarValue("\xFF", 1);
  }
  run.preferences.synchronise(kDomain);
  ASSERT_TRUE(run.log().empty()) << run.log().front();
}

void change(const fs::path& state_file, const char* sql) {
  Database(state_file.string(), Database::Access::kReadWrite, 0).execute(sql);
}

std::map<std::string, std::string> filesOf(const TemporaryFolder& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::directory_iterator(folder.path())) {
    const std::string name = entry.path().filename();
    files[name] = folder.read(name);
  }
  return files;
}

TEST(StateTest, PrintsWhatADaemonKept) {
  const TemporaryFolder folder;
  keep((folder / "real").string(), true);
  fs::create_directory_symlink("real", folder / "link");
  const std::string real = fs::canonical(folder / "real").string();
  const Outcome status = volornctl((folder / "link").string(), {"status", "--json"});
  EXPECT_EQ(status.status, kDone) << status.errors;
  EXPECT_EQ(status.output,
            R"({"schema":1,"stateFile":")" + real +
                R"(/volorn.db","preferences":{"nextPlannedWakeupTime":null,)"
                R"("lastWakeupTime":"2026-11-23T04:05:06Z","lastLogDumpedDaySince1970":20780},)"
                R"("job":{"name":"com.zorvik.volorn.logcreation","windowStart":"2000-12-31T23:59:59Z",)"
                R"("windowEnd":null},"lastSnapshotAt":"2026-11-23T04:05:06Z","verdict":"fine"})"
                "\n");
  EXPECT_EQ(
      volornctl(real, {"metrics", "--json"}).output,
      R"({"schema":1,"takenAt":"2026-11-23T04:05:06Z","metrics":[)"
      R"({"key":"com.zorvik.snapshot.thermalLevel","value":-4},{"key":"\ufffd","value":1}],"unknown":["com.zorvik.snapshot.thermalLevel"]})"
      "\n");
  EXPECT_EQ(volornctl(real, {"metrics"}).output,
            "Taken at  2026-11-23 04:05:06 UTC, now\n"
            "\n"
            "Key               Value  Reading\n"
            "thermalLevel  not known\n"
            "\\xff                  1\n");
}

TEST(StateTest, HistoryTakesTheNewestAndOneKey) {
  const TemporaryFolder folder;
  keep(folder.path(), true);
  keep(folder.path(), true);
  change(folder / "volorn.db",
         "UPDATE snapshot SET taken_at = taken_at - 86400 WHERE id = 1; UPDATE metric SET value = 5 WHERE "
         "snapshot_id = 1 AND position = 1;");
  const std::string before = R"({"takenAt":"2026-11-22T04:05:06Z","metrics":{)";
  const std::string newest = R"({"takenAt":"2026-11-23T04:05:06Z","metrics":{)";
  const std::string thermal = R"("com.zorvik.snapshot.thermalLevel":)";
  const std::string other = R"(,"\ufffd":1)";
  const std::string end = R"(},"unknown":["com.zorvik.snapshot.thermalLevel"]})";
  struct Case {
    std::vector<const char*> arguments;
    std::string snapshots;
  };
  const Case cases[] = {
      {{}, before + thermal + "5" + other + end + "," + newest + thermal + "-4" + other + end},
      {{"--limit", "1"}, newest + thermal + "-4" + other + end},
      {{"--limit=1", "--key=thermalLevel"}, newest + thermal + "-4" + end},
      {{"--limit", "9223372036854775807", "--key", "com.zorvik.snapshot.thermalLevel"},
       before + thermal + "5" + end + "," + newest + thermal + "-4" + end},
      {{"--key", "system", "--key", "battery", "--since", "2026-11-23T00:00:00"},
       newest + thermal + "-4" + end},
      {{"--since=2026-11-22", "--until=2026-11-23T04:05:06Z"}, before + thermal + "5" + other + end},
      {{"--until", "2026-11-22", "--key", "\xFF"}, before + other.substr(1) + R"(},"unknown":[]})"},
  };
  for (Case c : cases) {
    c.arguments.insert(c.arguments.begin(), {"history", "--json"});
    EXPECT_EQ(volornctl(folder.path(), c.arguments).output,
              R"({"schema":1,"snapshots":[)" + c.snapshots + "]}\n");
  }
  EXPECT_EQ(volornctl(folder.path(), {"history"}).output,
            "Taken at              Key               Value  Reading\n"
            "2026-11-22T04:05:06Z  thermalLevel  not known\n"
            "2026-11-22T04:05:06Z  \\xff                  1\n"
            "2026-11-23T04:05:06Z  thermalLevel  not known\n"
            "2026-11-23T04:05:06Z  \\xff                  1\n");
  EXPECT_EQ(volornctl(folder.path(), {"history", "--format=csv"}).output,
            "takenAt,thermalLevel,\\xff\n2026-11-22T04:05:06Z,,1\n2026-11-23T04:05:06Z,,1\n");
  EXPECT_EQ(volornctl(folder.path(), {"metrics", "--key=\xFF", "--value"}).output, "1\n");
  EXPECT_TRUE(volornctl(folder.path(), {"report", "--output", "-"}).output.ends_with("</html>\n"));
  EXPECT_EQ(volornctl(folder.path(), {"metrics", "--key=thermalLevel", "--value"}).errors,
            "volornctl: thermalLevel: not known when the newest snapshot was taken\n");
  change(folder / "volorn.db", "DELETE FROM metric WHERE snapshot_id = 2 AND position = 1;");
  // The newest that is left, and not what is left of the newest.
  EXPECT_EQ(volornctl(folder.path(), {"history", "--json", "--limit=1", "--key=thermalLevel"}).output,
            R"({"schema":1,"snapshots":[)" + before + thermal + "5" + end + "]}\n");
  struct Refusal {
    std::vector<const char*> arguments;
    ExitStatus status;
    std::string error;
  };
  const std::string none = folder.path() + "/volorn.db: none of these snapshots holds ";
  const Refusal refusals[] = {
      {{"history", "--key", "jetsamLevel"}, kNoData, none + "jetsamLevel"},
      {{"history", "--key", "battery", "--key", "times"}, kNoData, none + "battery or times"},
      {{"history", "--since", "2026-11-24"},
       kNoData,
       folder.path() + "/volorn.db: no snapshot was taken in this time"},
      {{"metrics", "--key", "thermalLevel", "--value"},
       kNoData,
       "the newest snapshot does not hold thermalLevel"},
      {{"history", "--key", "thermal"},
       kUsage,
       "--key: not a key of these snapshots: thermal; see volornctl --help"},
  };
  for (const Refusal& refusal : refusals) {
    const Outcome outcome = volornctl(folder.path(), refusal.arguments);
    EXPECT_EQ(outcome.status, refusal.status);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "volornctl: " + refusal.error + "\n");
  }
}

TEST(StateTest, WithoutASnapshotThereIsStatusAlone) {
  const TemporaryFolder folder;
  keep(folder.path(), false);
  EXPECT_EQ(volornctl(folder.path(), {"status"}).status, kDone);
  const std::string told = "volornctl: " + folder.path() + "/volorn.db: no snapshot has been taken yet\n";
  for (const char* command : {"metrics", "history"}) {
    const Outcome outcome = volornctl(folder.path(), {command, "--json"});
    EXPECT_EQ(outcome.status, kNoData);
    EXPECT_EQ(outcome.output + outcome.errors, told);
  }
}

// The folder as a run leaves it that was cut off when a part of its writes had reached the file.
void cutOffARun(const TemporaryFolder& folder) {
  const TemporaryFolder original;
  keep(original.path(), true);
  Database database((original / "volorn.db").string(), Database::Access::kReadWrite, 0);
  database.execute(
      "PRAGMA journal_mode = PERSIST; PRAGMA cache_size = 1; BEGIN IMMEDIATE;"
      "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 100)"
      "INSERT INTO metric_key (name) SELECT hex(zeroblob(2000)) || i FROM n;");
  for (const char* name : {"volorn.db", "volorn.db-journal"}) folder.write(name, original.read(name));
}

TEST(StateTest, WhatGivesNothingIsToldAndLeftAsItIs) {
  struct Case {
    const char* what;
    std::function<void(const TemporaryFolder& folder)> make;
    ExitStatus status;
    std::string error;
  };
  const auto kept = [](const char* sql) {
    return [=](const TemporaryFolder& folder) {
      keep(folder.path(), true);
      change(folder / "volorn.db", sql);
    };
  };
  const std::string none_yet = "no run has kept anything yet\n";
  const Case cases[] = {
      {"folder missing", [](const auto& folder) { fs::remove(folder.path()); }, kNoData, none_yet},
      {"file missing", [](const auto&) {}, kNoData, none_yet},
      {"empty", [](const auto& folder) { folder.write("volorn.db", ""); }, kNoData, none_yet},
      {"first run cut off",
       [](const auto& folder) {
         cutOffARun(folder);
         folder.write("volorn.db", "");
       },
       kNoData, none_yet},
      {"run cut off", cutOffARun, kFailed, "a run was cut off; the next start of the daemon will mend it\n"},
      {"newer", kept("PRAGMA user_version = 99"), kFailed, "written by a newer program\n"},
      {"foreign", kept("PRAGMA application_id = 1"), kFailed, "holds another program's data\n"},
      {"tables missing", kept("DROP TABLE job; DROP TABLE metric; DROP TABLE snapshot;"), kFailed,
       "damaged (its tables are not those that were made)"},
      {"no database", [](const auto& folder) { folder.write("volorn.db", std::string(5000, '\x9C')); },
       kFailed, "damaged (file is not a database)"},
      {"cut short",
       [](const auto& folder) {
         keep(folder.path(), true);
         fs::resize_file(folder / "volorn.db", 4096);
       },
       kFailed, "damaged (database disk image is malformed)"},
      {"FIFO", [](const auto& folder) { mkfifo((folder / "volorn.db").c_str(), 0644); }, kFailed,
       "not a regular file\n"},
      {"link",
       [](const auto& folder) {
         keep((folder / "elsewhere").string(), true);
         fs::create_symlink("elsewhere/volorn.db", folder / "volorn.db");
       },
       kFailed, "not a regular file\n"},
  };
  for (const Case& c : cases) {
    const TemporaryFolder folder;
    c.make(folder);
    const bool there = fs::exists(folder.path());
    const auto before = there ? filesOf(folder) : std::map<std::string, std::string>();
    for (const char* command : {"status", "metrics", "history"}) {
      const Outcome outcome = volornctl(folder.path(), {command, "--json"});
      EXPECT_EQ(outcome.status, c.status) << c.what;
      EXPECT_EQ(outcome.output, "") << c.what;
      EXPECT_TRUE(outcome.errors.starts_with("volornctl: " + folder.path() + "/volorn.db: " + c.error))
          << c.what << ": " << outcome.errors;
    }
    EXPECT_EQ(there ? filesOf(folder) : before, before) << c.what;
  }
}

TEST(StateTest, TheFileOfOnesOwnDaemonComesFirst) {
  const TemporaryFolder folder;
  folder.write("own/volorn.db", "");
  folder.write("without/a", "");
  fs::create_symlink("loop", folder / "loop");
  const auto inUse = [&](const char* own) { return stateDirectoryInUse((folder / own).string(), "/system"); };
  EXPECT_EQ(inUse("own"), (folder / "own").string());
  EXPECT_EQ(inUse("without"), "/system");
  EXPECT_EQ(inUse("missing"), "/system");
  EXPECT_EQ(inUse("without/a"), "/system");
  EXPECT_EQ(inUse("loop"), (folder / "loop").string());  // cannot be looked at
  EXPECT_EQ(stateDirectoryInUse("", "/system"), "/system");
}

}  // namespace
}  // namespace volorn::ctl
