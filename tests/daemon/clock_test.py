"""volornd under clocks that faketime(1) steps and speeds up."""

import datetime
import fcntl
import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

REALTIME_ALONE = {**os.environ, "FAKETIME_DONT_FAKE_MONOTONIC": "1", "TZ": "UTC0"}
NOON = 794059200.0  # 1 March 2026, in seconds since the reference date
HOUR = 3600

# How many seconds after its planned time the daemon is started, day by day.
DELAYS = [0, 30, 31, -30, HOUR, 0, host.DAY_SECONDS, 40 * host.DAY_SECONDS + HOUR, -1]


class ClockTest(host.Test):
    def runAt(self, date):
        moment = datetime.datetime.fromtimestamp(date + host.REFERENCE_DATE, datetime.timezone.utc)
        log = self.runDaemon(["faketime", "-f", moment.strftime("%Y-%m-%d %H:%M:%S"), host.VOLORND],
                             env=REALTIME_ALONE)
        state = host.readState()
        self.assertEqual(state.preferences["lastWakeupTime"], date)
        return log, state

    def testTenDays(self):
        log, before = self.runAt(NOON)
        self.assertEqual(log, host.NEW)
        self.checkRun(host.State(), before)
        for delay in DELAYS:
            plan = before.preferences["nextPlannedWakeupTime"]
            with self.subTest(f"day {len(before.snapshots)}, {delay} s after {plan}"):
                log, early = self.runAt(plan - 31)
                self.assertIn("wakeupstatus was wakeupstatus too early", log)
                self.assertEqual(early.snapshots, before.snapshots)
                self.assertEqual(early.preferences["nextPlannedWakeupTime"], plan)
                # In the first seconds of a day, half a minute before would be the day before.
                midnight = plan - (plan + host.REFERENCE_DATE) % host.DAY_SECONDS
                log, after = self.runAt(max(plan + delay, midnight))
                self.assertEqual(log, host.LATE[:2 if delay > 30 else 1])
                self.checkRun(early, after)
                self.assertEqual(after.metrics()["plannedSecsSinceMidnight"], plan - midnight)
            before = after
        self.assertEqual(len(before.snapshots), 10)

    def runHurried(self):
        """A thousand times as fast, so that waiting costs nothing."""
        return self.runDaemon(["faketime", "-f", "+0 x1000", host.VOLORND])

    def testPatienceEnds(self):
        """With a run that does not end, and with a reader that does not."""
        yesterday = self.makeStateOf(2)
        with self.subTest("lock"), open(host.STATE / "volorn.lock") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            reason = f"{host.STATE}/volorn.lock: another run holds it: Connection timed out"
            self.assertEqual(self.runHurried(), [host.lossOf(reason), *host.NEW])
            self.assertEqual(host.save(), yesterday)
        with self.subTest("reader"), host.opened() as reader:
            before = host.readState()
            reader.execute("BEGIN")
            reader.execute("SELECT * FROM preference").fetchone()
            self.assertEqual(self.runHurried(), [*host.LATE, host.lossOf("database is locked")])
            reader.execute("ROLLBACK")
            self.assertEqual(host.readState(), before)
            self.runDaemon()
            self.checkRun(before, host.readState())


if __name__ == "__main__":
    host.main()
