"""volornd under clocks that faketime(1) steps and speeds up."""

import datetime
import fcntl
import os
import time

import host

UTC = "UTC0"
FAR_EAST, FAR_WEST = "<+14>-14", "<-12>12"
CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3"

# What a start is to its plan. All but the early ones take a snapshot, unless the day has one.
FIRST, EARLY, ON_TIME, LATE = "no plan", "early", "on time", "late"
HAS_ONE = "the day has one"
LOGS = {FIRST: host.NEW, EARLY: host.EARLY, ON_TIME: host.LATE[:1], LATE: host.LATE}

# Clocks and the starts under each: zone, UTC time, and what the start is. Before one on time the plan is put there.
# Else the plan lies anywhere in the day after, so that a start is late from 31 seconds after that day on.
CLOCKS = {
    "from 1970 to today, as after a boot": [
        (UTC, "1970-01-01 00:01:00", FIRST),
        (UTC, "1970-01-03 00:00:31", LATE),
        (UTC, "2026-03-01 12:00:00", LATE),
        (UTC, "1970-01-01 00:01:00", EARLY),
        (UTC, "2026-03-01 13:00:00", EARLY, HAS_ONE),
    ],
    "back by a day, across the plan": [
        (UTC, "2026-03-10 12:00:00", FIRST),
        (UTC, "2026-03-11 10:00:00", ON_TIME),
        (UTC, "2026-03-10 10:00:00", EARLY),
        (UTC, "2026-03-11 10:00:00", EARLY, HAS_ONE),
    ],
    "zones, which days do not follow": [
        (UTC, "2026-03-01 23:00:00", FIRST),
        (FAR_EAST, "2026-03-01 23:30:00", EARLY, HAS_ONE),
        (FAR_EAST, "2026-03-02 12:00:00", ON_TIME),
        (FAR_WEST, "2026-03-02 12:00:00", EARLY, HAS_ONE),
        (FAR_WEST, "2026-03-03 00:00:00", ON_TIME),
        (UTC, "2026-03-03 23:59:29", EARLY, HAS_ONE),
    ],
    "nights that lose an hour and have one twice": [
        (CENTRAL_EUROPE, "2026-03-28 12:00:00", FIRST),
        (CENTRAL_EUROPE, "2026-03-29 00:59:59", ON_TIME),
        (CENTRAL_EUROPE, "2026-03-29 01:00:00", EARLY, HAS_ONE),
        (CENTRAL_EUROPE, "2026-10-25 00:30:00", ON_TIME),
        (CENTRAL_EUROPE, "2026-10-25 01:30:00", EARLY, HAS_ONE),
        (CENTRAL_EUROPE, "2026-10-26 00:00:00", ON_TIME),
    ],
}


def timeOfDay(date, zone):
    os.environ["TZ"] = zone
    time.tzset()
    local = time.localtime(date + host.REFERENCE_DATE)
    return (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec


class ClockTest(host.Test):
    def testClocksThatAreSet(self):
        for clock, starts in CLOCKS.items():
            host.restore(None)
            for number, (zone, text, *what) in enumerate(starts):
                date = datetime.datetime.fromisoformat(text + "+00:00").timestamp() - host.REFERENCE_DATE
                with self.subTest(f"{clock}: start {number}, {text}"):
                    self.checkStart(date, zone, *what)

    def checkStart(self, date, zone, kind, has_one=None):
        if kind == ON_TIME:
            host.editState(f"UPDATE preference SET value = {date} WHERE key = 'nextPlannedWakeupTime'")
        before = host.readState()
        log = self.runAt(date, zone)
        after = host.readState()
        takes = kind != EARLY and not has_one
        again = [] if takes else [*([host.HAS_ONE] if has_one else []), host.AGAIN]
        self.assertEqual(log, LOGS[kind] + again)
        self.assertEqual(after.preferences["lastWakeupTime"], date)
        planned = before.preferences.get("nextPlannedWakeupTime")
        plan = after.preferences["nextPlannedWakeupTime"]
        if takes:
            self.checkRun(before, after)
            for key, told in (("wakeup", date), ("planned", planned), ("next", plan)):
                if told is not None:
                    self.assertEqual(after.metrics()[f"{key}SecsSinceMidnight"], timeOfDay(told, zone), key)
        else:
            self.assertEqual((after.snapshots, plan), (before.snapshots, planned))

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
