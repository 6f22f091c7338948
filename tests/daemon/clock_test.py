"""volornd under clocks that faketime(1) steps and speeds up."""

import dataclasses
import datetime
import fcntl
import os
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

# A moment is given in seconds since 1970, which no zone changes.
REALTIME_ALONE = {**os.environ, "FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_FMT": "%s"}
NOON = 794059200.0  # 1 March 2026, in seconds since the reference date
HOUR = 3600

# How many seconds after its planned time the daemon is started, day by day.
DELAYS = [0, 30, 31, -30, HOUR, 0, host.DAY_SECONDS, 40 * host.DAY_SECONDS + HOUR, -1]

UTC = "UTC0"
FAR_EAST, FAR_WEST = "<+14>-14", "<-12>12"
CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3"

# What a start is to its plan. All but the early ones take a snapshot, unless the day has one.
FIRST, EARLY, ON_TIME, LATE = "no plan", "early", "on time", "late"
HAS_ONE = "the day has one"

# Clocks and the starts under each: zone, UTC time, and what the start is. Before one on time the plan is put there.
# Else the plan lies anywhere in the day after, so that a start is late from 31 seconds after that day on.
CLOCKS = [
    ("1970",
     (UTC, "1970-01-01 00:00:00", FIRST),
     (UTC, "1970-01-01 12:00:00", EARLY, HAS_ONE),
     (UTC, "1970-01-03 00:00:31", LATE),
     (UTC, "1970-01-04 00:00:00", ON_TIME)),
    ("from 1970 to today, as after a boot",
     (UTC, "1970-01-01 00:01:00", FIRST),
     (UTC, "2026-03-01 12:00:00", LATE),
     (UTC, "1970-01-01 00:01:00", EARLY),
     (UTC, "2026-03-01 13:00:00", EARLY, HAS_ONE)),
    ("back by a day",
     (UTC, "2026-03-10 12:00:00", FIRST),
     (UTC, "2026-03-09 12:00:00", EARLY),
     (UTC, "2026-03-10 12:00:00", EARLY, HAS_ONE),
     (UTC, "2026-03-12 00:00:31", LATE)),
    ("back by a day, across the plan",
     (UTC, "2026-03-10 12:00:00", FIRST),
     (UTC, "2026-03-11 10:00:00", ON_TIME),
     (UTC, "2026-03-10 10:00:00", EARLY),
     (UTC, "2026-03-11 10:00:00", EARLY, HAS_ONE)),
    ("forward by a year and back",
     (UTC, "2026-03-01 12:00:00", FIRST),
     (UTC, "2027-03-01 12:00:00", LATE),
     (UTC, "2026-03-01 12:00:00", EARLY),
     (UTC, "2026-03-02 12:00:00", EARLY),
     (UTC, "2027-03-03 00:00:31", LATE)),
    ("zones, which days do not follow",
     (UTC, "2026-03-01 23:00:00", FIRST),
     (FAR_EAST, "2026-03-01 23:30:00", EARLY, HAS_ONE),
     (FAR_EAST, "2026-03-02 12:00:00", ON_TIME),
     (FAR_WEST, "2026-03-02 12:00:00", EARLY, HAS_ONE),
     (FAR_WEST, "2026-03-03 00:00:00", ON_TIME),
     (UTC, "2026-03-03 23:59:29", EARLY, HAS_ONE)),
    ("the night that loses an hour",
     (CENTRAL_EUROPE, "2026-03-28 12:00:00", FIRST),
     (CENTRAL_EUROPE, "2026-03-28 23:00:00", EARLY, HAS_ONE),
     (CENTRAL_EUROPE, "2026-03-29 00:59:59", ON_TIME),
     (CENTRAL_EUROPE, "2026-03-29 01:00:00", EARLY, HAS_ONE),
     (CENTRAL_EUROPE, "2026-03-30 00:00:00", ON_TIME)),
    ("the night that has an hour twice",
     (CENTRAL_EUROPE, "2026-10-24 12:00:00", FIRST),
     (CENTRAL_EUROPE, "2026-10-24 22:00:00", EARLY, HAS_ONE),
     (CENTRAL_EUROPE, "2026-10-25 00:30:00", ON_TIME),
     (CENTRAL_EUROPE, "2026-10-25 01:30:00", EARLY, HAS_ONE),
     (CENTRAL_EUROPE, "2026-10-26 00:00:00", ON_TIME)),
    # From here on plans wrap into a past of long ago: every start is late, and a step back has nothing to wait for.
    ("2038",
     (UTC, "2038-01-17 12:00:00", FIRST),
     (UTC, "2038-01-18 12:00:00", ON_TIME),
     (UTC, "2038-01-20 00:00:31", LATE),
     (UTC, "2038-01-20 00:00:32", LATE, HAS_ONE),
     (UTC, "2038-01-21 00:00:00", LATE),
     (UTC, "2038-01-21 23:59:59", LATE, HAS_ONE),
     (UTC, "2038-01-20 23:59:59", LATE)),
    ("2098",
     (UTC, "2098-06-01 12:00:00", FIRST),
     (UTC, "2098-06-01 12:00:01", LATE, HAS_ONE),
     (UTC, "2098-06-02 00:00:00", LATE),
     (UTC, "2026-03-01 12:00:00", LATE),
     (UTC, "2026-03-01 12:00:01", EARLY, HAS_ONE)),
]

LOGS = {FIRST: host.NEW, EARLY: host.EARLY, ON_TIME: host.LATE[:1], LATE: host.LATE}


def dateOf(text):
    return datetime.datetime.fromisoformat(text + "+00:00").timestamp() - host.REFERENCE_DATE


def timeOfDay(date, zone):
    os.environ["TZ"] = zone
    time.tzset()
    local = time.localtime(date + host.REFERENCE_DATE)
    return (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec


def unwrapped(state):
    """The state as it would be if its plan, in 32 bits, had not wrapped."""
    plan = state.preferences["nextPlannedWakeupTime"]
    wraps = round((state.preferences["lastWakeupTime"] - plan) / 2**32) * 2**32
    return dataclasses.replace(state, preferences={**state.preferences, "nextPlannedWakeupTime": plan + wraps},
                               jobs={name: (start + wraps, end + wraps) for name, (start, end) in state.jobs.items()})


class ClockTest(host.Test):
    def runAt(self, date, zone=UTC):
        log = self.runDaemon(["faketime", "-f", f"{date + host.REFERENCE_DATE:.0f}", host.VOLORND],
                             env={**REALTIME_ALONE, "TZ": zone})
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

    def testClocksThatAreSet(self):
        for clock, *starts in CLOCKS:
            host.restore(None)
            for number, (zone, text, *what) in enumerate(starts):
                with self.subTest(f"{clock}: start {number}, {text}"):
                    self.checkStart(dateOf(text), zone, *what)

    def checkStart(self, date, zone, kind, has_one=None):
        if kind == ON_TIME:
            host.editState(f"UPDATE preference SET value = {date} WHERE key = 'nextPlannedWakeupTime'")
        before = host.readState()
        log, after = self.runAt(date, zone)
        takes = kind != EARLY and not has_one
        self.assertEqual(log, LOGS[kind] + ([] if takes else [*([host.HAS_ONE] if has_one else []), host.AGAIN]))
        plan = after.preferences["nextPlannedWakeupTime"]
        self.assertTrue(-2**31 <= plan + host.REFERENCE_DATE < 2**31)
        if takes:
            self.checkRun(before, unwrapped(after))
            self.assertEqual(after.metrics()["wakeupSecsSinceMidnight"], timeOfDay(date, zone))
            self.assertEqual(after.metrics()["nextSecsSinceMidnight"], timeOfDay(plan, zone))
        else:
            self.assertEqual((after.snapshots, plan), (before.snapshots, before.preferences["nextPlannedWakeupTime"]))

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
