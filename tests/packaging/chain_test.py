"""The daemon's units under a real systemd, from a boot 50 seconds before the plan on: whatever happens, the timer
stands for the next start."""

import ctypes
import fcntl
import os
import pathlib
import shutil
import subprocess
import time

import host
import systemd_host
import volorn_units as units
from host import CLEARS, STAYS, waitFor
from systemd_host import run
from volorn_units import shows, systemctl

EXPORT = host.STATE / "volorn.prom"
ROUNDS = 25
HALF_MINUTE_US = 30_000_000  # up to which before its plan a start counts as on time


# The guard has read the row and noted it, and is stopped before it sets the timer.
STOPPED = "/usr/bin/strace -qq -o /dev/null -e inject=rename:signal=STOP:when=1 /usr/sbin/waketide arm"


def planAhead(seconds):
    """The state of a run, with yesterday's snapshot and no job yet."""
    shutil.rmtree(host.STATE, ignore_errors=True)
    run(host.VOLORND)
    date = float(int(time.time()) + seconds - host.REFERENCE_DATE)
    host.editState(
        "UPDATE preference SET value = value - 1 WHERE key = 'lastLogDumpedDaySince1970'",
        f"UPDATE preference SET value = {date} WHERE key = 'nextPlannedWakeupTime'",
        "DELETE FROM job",
    )
    for path in (host.STATE, *host.STATE.iterdir()):
        shutil.chown(path, "volorn", "volorn")


def prepare():
    units.install()
    planAhead(50)


def clockIsTrusted():
    state = ctypes.CDLL(None).adjtimex(ctypes.create_string_buffer(1024))
    return 0 <= state < 5 or time.clock_gettime(time.CLOCK_BOOTTIME) >= 2 * host.DAY_SECONDS


class BootTest(units.Test):
    """By its name the first: the boot is its start."""

    def beforeThePlan(self):
        """The state that a start has left which came too early for its plan: that of the boot, but on a machine that
        is slow to boot one of ours."""
        for seconds_ahead in (60, 120, 240):
            self.assertComesTrue(lambda: units.started() and not units.active())
            state = host.readState()
            date = units.microseconds(state.preferences["nextPlannedWakeupTime"])
            if units.started() < date - HALF_MINUTE_US and len(state.snapshots) == 1:
                return state
            units.stopTimer()
            planAhead(seconds_ahead)
            systemctl("start volorn.service")
        return self.fail("no start came in time")

    def testStartsAtThePlan(self):
        host.keepOffMidnight(300)
        before = self.beforeThePlan()
        plan = before.preferences["nextPlannedWakeupTime"]
        plan_us = units.microseconds(plan)
        self.assertEqual(before.jobs, {host.JOB: (plan, plan + 7 * host.DAY_SECONDS)})
        self.assertTimerAt(lambda: plan_us)
        self.assertIn(host.EARLY, units.journal("volornd"))
        self.assertComesTrue(lambda: units.started() >= plan_us)
        self.assertLess(units.started() - plan_us, HALF_MINUTE_US)
        self.assertTimerAt(units.row)
        self.assertEqual(units.journal("volornd", plan_us), host.LATE[:1])
        after = host.readState()
        self.checkRun(before, after)
        # The sandbox hides neither load nor memory.
        self.assertGreater(after.metrics()["jetsamLevel"], 0)
        self.assertGreater(sum(after.metrics()[key] for key in host.KEYS[13:16]), 0)
        for path, mode in ((host.STATE, 0o755), (host.FILE, 0o640), (EXPORT, 0o644)):
            found = path.stat().st_mode & 0o7777, path.owner(), path.group()
            self.assertEqual(found, (mode, "volorn", "volorn"), path)


class SandboxTest(units.Test):
    def testExposure(self):
        for unit, tenths in (
            ("volorn.service", 3),
            ("volorn-note.service", 3),
            ("volorn-note-boot.service", 3),
            ("volorn-note-sleep.service", 3),
            ("volorn-arm.service", 6),
            ("volorn-guard.service", 6),
        ):
            with self.subTest(unit):
                run("systemd-analyze", "security", "--no-pager", f"--threshold={tenths}", unit)


class ChainTest(units.Test):
    @classmethod
    def setUpClass(cls):
        units.reset({})
        systemctl("start volorn.service")
        waitFor(lambda: not units.active())
        cls.fresh = host.save()

    def setUp(self):
        host.keepOffMidnight(300)
        self.reset()
        self.addCleanup(units.stopTimer)  # out of the way of the next test's own

    def reset(self):
        units.reset(self.fresh)
        self.before = units.started()

    def guard(self):
        systemctl("start volorn-guard.service")

    def assertStarted(self):
        self.assertComesTrue(lambda: units.started() > self.before)

    def testTheTimerIsPartOfTheVerdict(self):
        def verdict():
            status, line, _ = host.run(host.VOLORNCTL, "status", "--check")
            return status, line.partition(":")[0]

        self.assertEqual(verdict(), (0, "fine"))
        for spoil in (
            units.stopTimer,
            lambda: host.editState("UPDATE job SET window_start = window_start + 60"),
        ):
            spoil()
            self.assertEqual(verdict(), (2, "unarmed"))
            self.guard()
            self.assertEqual(verdict(), (0, "fine"))

    def testRunThatEndsBadly(self):
        """The real daemon waits for its lock, which another holds."""
        for result, settings, end in (
            ("exit-code", units.instead("/usr/sbin/volornd-that-is-not-there"), None),
            ("exit-code", units.instead("/bin/false"), None),
            ("signal", (), "kill --signal=KILL volorn.service"),
            ("timeout", ("TimeoutStartSec=200ms",), None),
        ):
            self.reset()
            with self.subTest(settings), open(host.STATE / "volorn.lock") as lock:
                fcntl.flock(lock, fcntl.LOCK_EX)
                units.dropIn("volorn.service", *settings)
                EXPORT.unlink(missing_ok=True)
                systemctl("stop volorn.timer")
                systemctl("start --no-block volorn.service")
                if end:
                    self.assertComesTrue(lambda: shows("volorn.service", "MainPID") != "0")
                    systemctl(end)
                self.assertComesTrue(lambda: shows("volorn.service", "Result") == result)
                self.assertTimerAt(units.row)
                self.assertTrue(EXPORT.read_text().endswith("# EOF\n"))

    def testGuardMendsWhatIsDue(self):
        for name, spoil in (
            ("open", lambda: host.age(2)),
            ("expired", lambda: host.age(30)),
            ("no row", lambda: host.editState("DELETE FROM job")),
            (
                "moved aside",
                lambda: [(host.STATE / name).unlink() for name in ("volorn.db", "volorn.db-journal")],
            ),
            ("damaged", lambda: host.FILE.write_bytes(b"no database" * 1000)),
        ):
            with self.subTest(name):
                self.reset()
                spoil()
                guarded = time.time() * 1e6
                self.guard()
                self.assertStarted()
                # By the timer, which stands two seconds ahead then, and no other way.
                self.assertGreater(units.started(), guarded + 1_000_000)
                self.assertTimerAt(units.row)
                self.assertGreater(units.row(), time.time() * 1e6)

    def testRowThatStaysOpen(self):
        """One start; what comes next is planned for midnight, whoever asks again."""
        # Each with a row of its own: that of the case before would be known again.
        for days, command in ((2, None), (3, "/bin/false"), (4, "/bin/true")):
            with self.subTest(command):
                self.reset()
                host.age(days)
                if command:
                    units.dropIn("volorn.service", *units.instead(command))
                else:
                    os.chown(host.FILE, 0, -1)  # so that it cannot store
                self.guard()
                self.assertStarted()
                start = units.started()
                for _ in range(2):
                    self.assertTimerAt(lambda: units.nextMidnight(start))
                    self.guard()
                self.assertEqual(units.started(), start)

    def startWithPlanFarAhead(self):
        """What the step before the daemon told."""
        host.age(-10)
        self.guard()
        self.assertStarted()
        self.assertComesTrue(lambda: not units.active())
        return units.journal("waketide", self.before)

    def assertPlannedAnew(self):
        stored = host.readState().preferences
        self.assertEqual(
            host.dayOf(stored["nextPlannedWakeupTime"]), host.dayOf(stored["lastWakeupTime"]) + 1
        )
        self.assertTimerAt(units.row)

    def testPlanFarAheadOfTheMachinesClock(self):
        """Whatever that is worth. The kernel is asked from where it answers."""
        trusted = told = None
        while told is None or clockIsTrusted() != trusted:
            self.reset()
            trusted = clockIsTrusted()
            told = self.startWithPlanFarAhead()
        self.assertIn(CLEARS if trusted else STAYS, told)
        self.assertNotIn("does not tell", "".join(told))
        if trusted:
            self.assertPlannedAnew()
        else:
            self.assertTimerAt(lambda: units.nextMidnight(units.started()))


class RearmTest(units.Test):
    def setUp(self):
        host.keepOffMidnight(300)
        units.reset({})
        systemctl("start volorn.service")
        self.assertTimerAt(units.row)

    def testManyInARowAndTwoAtOnce(self):
        """The timer that is stopped may be there still when the next one is to be made."""
        loop = "for i in $(seq 50); do waketide arm 2>/dev/null || echo failed; done"
        loops = [subprocess.Popen(["sh", "-c", loop], stdout=subprocess.PIPE, text=True) for _ in range(2)]
        self.assertEqual([loop.communicate(timeout=1200)[0] for loop in loops], ["", ""])
        self.assertTimerAt(units.row)

    def testDaemonEndsWhileTheGuardHoldsAnOlderRow(self):
        fresh = host.save()
        units.dropIn("volorn-guard.service", *units.instead(STOPPED), "SystemCallFilter=")
        for number in range(ROUNDS):
            with self.subTest(number):
                host.restore(fresh, owner="volorn")
                host.age(2 + number)
                noted = units.RECORD.stat()
                systemctl("start --no-block volorn-guard.service")
                self.assertComesTrue(lambda: units.RECORD.stat().st_ino != noted.st_ino)
                systemctl("start volorn.service")
                # It waits for the lock, behind the guard.
                self.assertComesTrue(lambda: "-> FLOCK" in pathlib.Path("/proc/locks").read_text())
                systemctl("kill --signal=CONT volorn-guard.service")
                self.assertTimerAt(units.row)


if __name__ == "__main__":
    systemd_host.main(prepare)
