"""One start of volornd after the other, and many at once."""

import os
import pathlib
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

EARLY = ["WTD job already exists",
         "Woke up before 30.000000 seconds from due time, so not resetting planned wake up time",
         "wakeupstatus was wakeupstatus too early"]
AGAIN = ["rescheduling current trigger and not dumping the log"]
DUMPED_AGAIN = ["already dumped today!!", *AGAIN]

PLAN = "UPDATE preference SET value = {} WHERE key = 'nextPlannedWakeupTime'"
NO_PLAN = "DELETE FROM preference WHERE key = 'nextPlannedWakeupTime'"
NOW = f"CAST(strftime('%s') - {host.REFERENCE_DATE} AS REAL)"
DAY = "UPDATE preference SET value = value - 1 WHERE key = 'lastLogDumpedDaySince1970'"
NO_JOB = "DELETE FROM job"

# What was done to the state of a run of today, the log of the next one, and whether it takes a snapshot.
STARTS = [
    ("at once", [], EARLY + DUMPED_AGAIN, False),
    ("too early on a new day", [DAY], EARLY + AGAIN, False),
    ("on time on a new day", [DAY, PLAN.format(NOW)], ["WTD job already exists"], True),
    ("a day late", [DAY, PLAN.format(NOW + " - 86400")], host.LATE, True),
    ("on time and taken", [PLAN.format(NOW)], ["WTD job already exists", *DUMPED_AGAIN], False),
    ("no plan and taken", [NO_PLAN], ["WTD job already exists", host.NEW[1], *DUMPED_AGAIN], False),
    ("no job", [DAY, NO_JOB, PLAN.format(NOW)], ["WTD job doesn't exist"], True),
    ("stored day is no integer",
     ["UPDATE preference SET kind = 'date', value = 1.5 WHERE key = 'lastLogDumpedDaySince1970'",
      PLAN.format(NOW)], ["WTD job already exists"], True),
]


class DailyRunTest(host.Test):
    def testFirstRunAndLaterRun(self):
        before = time.clock_gettime(time.CLOCK_BOOTTIME)
        self.assertEqual(self.runDaemon(), host.NEW)
        after = time.clock_gettime(time.CLOCK_BOOTTIME)
        self.assertEqual(sorted(host.save()), ["volorn.db", "volorn.db-journal", "volorn.lock"])
        state = host.readState()
        self.checkRun(host.State(), state)
        metrics = state.metrics()
        self.assertEqual(metrics, {**metrics, **host.WITHOUT_DEVICES})
        self.assertTrue(min(before * 100 - 1, 2**31 - 1) <= metrics["uptime.Secs100x"] <= after * 100, metrics)
        self.assertIn(metrics["jetsamLevel"], range(101))
        host.age(2)
        earlier = host.readState()
        self.assertEqual(self.runDaemon(), host.LATE)
        self.checkRun(earlier, host.readState())

    def testStarts(self):
        fresh = self.makeStateOf(0)
        for name, statements, log, takes_snapshot in STARTS:
            with self.subTest(name):
                host.restore(fresh)
                host.editState(*statements)
                before = host.readState()
                self.assertEqual(self.runDaemon(), log)
                after = host.readState()
                if takes_snapshot:
                    self.checkRun(before, after)
                    continue
                plan = before.preferences.get("nextPlannedWakeupTime", 0.0)
                self.assertEqual(after.jobs, {host.JOB: (plan, plan + 7 * host.DAY_SECONDS)})
                woke = [state.preferences.pop("lastWakeupTime") for state in (before, after)]
                self.assertLess(*woke)
                before.jobs = after.jobs
                self.assertEqual(after, before)

    def testNeitherArgumentsNorEnvironmentMatter(self):
        elsewhere = host.LIB / "elsewhere"
        elsewhere.mkdir()
        names = ("HOME XDG_STATE_HOME XDG_DATA_HOME STATE_DIRECTORY VOLORN_STATE_DIR VOLORN_STATE_DIRECTORY "
                 "TMPDIR SQLITE_TMPDIR PWD").split()
        misleading = {**dict.fromkeys(names, str(elsewhere)), "LC_ALL": "C.UTF-8", "NOTIFY_SOCKET": "/none"}
        for arguments, environment in (
            (["--help"], {}),
            (["--state-dir", str(elsewhere), "-v", "", "--", "stop"], misleading),
        ):
            with self.subTest(arguments=arguments):
                host.restore(None)
                log = self.runDaemon([host.VOLORND, *arguments], env=environment, cwd=elsewhere)
                self.assertEqual(log, host.NEW)
                self.checkRun(host.State(), host.readState())
                self.assertEqual(list(elsewhere.iterdir()), [])

    def testTimesOfDayAreLocal(self):
        for zone, offset_seconds in (("UTC0", 0), ("EAST-5:30", 19800), ("WEST9", -32400)):
            with self.subTest(zone):
                host.restore(None)
                self.runDaemon(env={"TZ": zone})
                state = host.readState()
                for key, date in (("wakeup", state.preferences["lastWakeupTime"]),
                                  ("next", state.preferences["nextPlannedWakeupTime"])):
                    told = state.metrics()[key + "SecsSinceMidnight"]
                    self.assertIn(told, range(host.DAY_SECONDS))
                    # Two readings of the clock may lie on either side of a second, or of midnight.
                    apart = (told - int(date) - offset_seconds) % host.DAY_SECONDS
                    self.assertLess(min(apart, host.DAY_SECONDS - apart), 60)

    def testManyAtOnce(self):
        def damage(files):
            return {**files, "volorn.db": os.urandom(20000)}

        yesterday = self.makeStateOf(2)
        for name, files, set_aside in (("no folder", None, 0), ("empty folder", {}, 0),
                                       ("state of yesterday", yesterday, 0),
                                       ("random bytes", damage({}), 1),
                                       ("random bytes with a journal", damage(yesterday), 1)):
            with self.subTest(name):
                host.restore(files)
                before = host.State() if set_aside else host.readState()
                daemons = [subprocess.Popen([host.VOLORND], stderr=subprocess.PIPE, text=True) for _ in range(32)]
                logs = [daemon.communicate(timeout=600)[1] for daemon in daemons]
                self.assertEqual([daemon.returncode for daemon in daemons], [0] * 32)
                self.checkRun(before, host.readState())
                self.assertEqual("".join(logs).count("already dumped today!!"), 31)
                self.assertEqual("".join(logs).count("set aside"), set_aside)
                aside = [path.read_bytes() for path in host.STATE.glob("volorn.db.damaged-*Z")]
                self.assertEqual(aside, [files["volorn.db"]] if set_aside else [])


if __name__ == "__main__":
    host.main()
