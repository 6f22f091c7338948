"""The daemon's units under a real systemd: whatever happens, the timer stands for the next start."""

import ctypes
import fcntl
import os
import pathlib
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host
import systemd_host
import volorn_units as units
from systemd_host import run, waitFor

EXPORT = host.STATE / "volorn.prom"

CLEARS = "clearing it, so that the daemon plans anew"
STAYS = "it stays until the clock is synchronised or the machine has been up for 48 hours"

# The step before the daemon, on a machine whose clock the kernel calls synchronised.
SYNCHRONISED = "-+strace -qq -o /dev/null -e inject=adjtimex,clock_adjtime:retval=0 "

fresh = None  # the state that the boot left


def setUpModule():
    global fresh
    units.keepOffMidnight()
    if not waitFor(lambda: host.FILE.exists() and host.readState().jobs and units.timerStandsAt(units.row)):
        raise AssertionError(run("journalctl", "--quiet", "--lines=80"))
    fresh = host.save()


def stepBefore():
    """As installed, without the prefixes."""
    lines = run("systemctl", "cat", "volorn.service").splitlines()
    return next(line for line in lines if line.startswith("ExecStartPre=")).partition("=")[2].lstrip("-+")


def clockIsTrusted():
    state = ctypes.CDLL(None).adjtimex(ctypes.create_string_buffer(1024))
    return 0 <= state < 5 or time.clock_gettime(time.CLOCK_BOOTTIME) >= 2 * host.DAY_SECONDS


class BootTest(units.Test):
    def testFirstBoot(self):
        state = host.readState()
        self.assertEqual(units.journal("volornd")[:2], host.NEW)
        host.Test.checkRun(self, host.State(), state)
        plan = time.gmtime(state.preferences["nextPlannedWakeupTime"] + host.REFERENCE_DATE)
        timers = run("systemctl", "list-timers", "--no-legend", "volorn.timer", env={**os.environ, "TZ": "UTC"})
        self.assertIn(time.strftime("%Y-%m-%d %H:%M:%S UTC", plan), timers)

    def testWhoMayReadWhat(self):
        run("systemctl", "start", "volorn.service")
        found = {path.name: (path.stat().st_mode & 0o7777, path.owner(), path.group())
                 for path in (host.STATE, host.FILE, EXPORT)}
        self.assertEqual(found, {"volorn": (0o755, "volorn", "volorn"), "volorn.db": (0o640, "volorn", "volorn"),
                                 "volorn.prom": (0o644, "volorn", "volorn")})


class SandboxTest(units.Test):
    def testExposure(self):
        for unit, tenths in (("volorn.service", 3), ("volorn-arm.service", 6), ("volorn-guard.service", 6)):
            with self.subTest(unit):
                run("systemd-analyze", "security", "--no-pager", f"--threshold={tenths}", unit)

    def readingsInside(self):
        units.reset({})
        run("systemctl", "start", "volorn.service")
        return list(host.readState().metrics().items())[-4:]

    def readingsOutside(self):
        copy = "/run/outside.db"
        run("unshare", "--mount", "sh", "-ec",
            f"mount -t tmpfs lib {host.LIB}; {systemd_host.BUILD}/volornd; cp {host.FILE} {copy}")
        return list(host.readState(copy).metrics().items())[-4:]

    def testLoadAndMemoryAreTheMachines(self):
        agreed = []

        def readBetween():
            before, inside, after = self.readingsOutside(), self.readingsInside(), self.readingsOutside()
            self.assertEqual([key for key, _ in inside], host.KEYS[13:])
            agreed.extend(reading[0] for reading in inside if reading in before and reading in after)
            return set(agreed) == set(host.KEYS[13:])

        self.assertTrue(waitFor(readBetween), agreed)  # the figures move, and none may never agree


class ChainTest(units.Test):
    def setUp(self):
        units.keepOffMidnight()
        units.reset(fresh)
        self.before = units.started()

    def tearDown(self):
        # Out of the way of the next test's own.
        run("systemctl", "stop", "volorn.timer", check=False, stderr=subprocess.DEVNULL)

    def assertStarted(self):
        self.assertTrue(waitFor(lambda: units.started() > self.before))

    def testRunThatEndsBadly(self):
        """The real daemon waits for its lock, which another holds."""
        for result, settings, end in (("exit-code", units.instead("/usr/sbin/volornd-that-is-not-there"), None),
                                      ("exit-code", units.instead("/bin/false"), None),
                                      ("signal", (), ("systemctl", "kill", "--signal=KILL", "volorn.service")),
                                      ("timeout", ("TimeoutStartSec=200ms",), None)):
            units.reset(fresh)
            with self.subTest(settings), open(host.STATE / "volorn.lock") as lock:
                fcntl.flock(lock, fcntl.LOCK_EX)
                units.dropIn("volorn.service", *settings)
                EXPORT.unlink(missing_ok=True)
                run("systemctl", "stop", "volorn.timer")
                run("systemctl", "start", "--no-block", "volorn.service")
                if end:
                    self.assertTrue(waitFor(lambda: run("systemctl", "show", "-PMainPID", "volorn.service") != "0\n"))
                    run(*end)
                self.assertTrue(waitFor(
                    lambda: run("systemctl", "show", "-PResult", "volorn.service").strip() == result))
                self.assertTimerAt(units.row)
                self.assertTrue(EXPORT.read_text().endswith("# EOF\n"))

    def testRunThatHangsInADevice(self):
        """Its time-out ends it in the midst of its readings. Nothing of it is kept, and the chain goes on."""
        host.age(2)
        before = host.readState()
        hung = pathlib.Path("/run/hung")
        units.dropIn("volorn.service", "TimeoutStartSec=5s", *units.instead(
            f"+strace -qq -o {hung} -P /proc/loadavg -e inject=openat:delay_enter=3600000000 /usr/sbin/volornd"))
        run("systemctl", "start", "--no-block", "volorn.service")
        self.assertTrue(waitFor(
            lambda: run("systemctl", "show", "-PResult", "volorn.service").strip() == "timeout"))
        self.assertIn("loadavg", hung.read_text())
        self.assertTimerAt(lambda: units.nextMidnight(units.started()))
        self.assertEqual(host.readState(), before)
        units.reset(host.save())
        run("systemctl", "start", "volorn.service")
        host.Test.checkRun(self, before, host.readState())

    def testGuardMendsWhatIsDue(self):
        def moveAside():
            for name in ("volorn.db", "volorn.db-journal"):
                (host.STATE / name).rename(host.LIB / name)

        for name, spoil in (("open", lambda: host.age(2)),
                            ("expired", lambda: host.age(30)),
                            ("no row", lambda: host.editState("DELETE FROM job")),
                            ("moved aside", moveAside),
                            ("damaged", lambda: host.FILE.write_bytes(b"no database" * 1000))):
            with self.subTest(name):
                units.reset(fresh)
                self.before = units.started()
                spoil()
                guarded = time.time() * 1e6
                run("systemctl", "start", "volorn-guard.service")
                self.assertStarted()
                # By the timer, which stands two seconds ahead then, and no other way.
                self.assertGreater(units.started(), guarded + 1_000_000)
                self.assertTrue(units.settled())
                self.assertGreater(units.row(), time.time() * 1e6)
                self.assertTimerAt(units.row)

    def testRowThatStaysOpen(self):
        """One start; what comes next is planned for midnight, whoever asks again."""
        def cannotStore():
            os.chown(host.FILE, 0, -1)

        def runInstead(command):
            return lambda: units.dropIn("volorn.service", *units.instead(command))

        # Each with a row of its own: that of the case before would be known again.
        for days, name, spoil in ((2, "cannot store", cannotStore), (3, "fails", runInstead("/bin/false")),
                                  (4, "stores nothing", runInstead("/bin/true"))):
            with self.subTest(name):
                units.reset(fresh)
                host.age(days)
                self.before = units.started()
                spoil()
                run("systemctl", "start", "volorn-guard.service")
                self.assertStarted()
                start = units.started()
                self.assertTimerAt(lambda: units.nextMidnight(start))
                run("systemctl", "start", "volorn-guard.service")
                self.assertTimerAt(lambda: units.nextMidnight(start))
                self.assertEqual(units.started(), start)
                self.checkMidnightStarts(start)

    def checkMidnightStarts(self, start):
        """A run that began yesterday has left the row: midnight has passed since."""
        text = units.RECORD.read_text().split()
        self.assertEqual(int(text[0]), start)
        yesterday = start / 1e6 - host.REFERENCE_DATE - host.DAY_SECONDS
        text[1] = str(struct.unpack("<Q", struct.pack("<d", yesterday))[0])
        units.RECORD.write_text(" ".join(text) + "\n")
        self.before = start
        run("systemctl", "start", "volorn-guard.service")
        self.assertStarted()
        self.assertTimerAt(lambda: units.nextMidnight(units.started()))

    def startWithPlanFarAhead(self):
        """What the step before the daemon told."""
        host.age(-10)
        run("systemctl", "start", "volorn-guard.service")
        self.assertStarted()
        self.assertTrue(units.settled())
        return units.journal("waketide", self.before)

    def assertPlannedAnew(self):
        state = host.readState()
        self.assertEqual(host.dayOf(state.preferences["nextPlannedWakeupTime"]),
                         host.dayOf(state.preferences["lastWakeupTime"]) + 1)
        self.assertTimerAt(units.row)

    def testPlanFarAheadOfASynchronisedClock(self):
        units.dropIn("volorn.service", "ExecStartPre=", f"ExecStartPre={SYNCHRONISED}{stepBefore()}")
        self.assertIn(CLEARS, self.startWithPlanFarAhead())
        self.assertPlannedAnew()

    def testPlanFarAheadOfTheMachinesClock(self):
        """Whatever that is worth. The kernel is asked from where it answers."""
        trusted = told = None
        while told is None or clockIsTrusted() != trusted:
            units.reset(fresh)
            self.before, trusted = units.started(), clockIsTrusted()
            told = self.startWithPlanFarAhead()
        self.assertIn(CLEARS if trusted else STAYS, told)
        self.assertNotIn("does not tell", "".join(told))
        if trusted:
            self.assertPlannedAnew()
        else:
            self.assertTimerAt(lambda: units.nextMidnight(units.started()))

    def testTimerOfSomebodyElse(self):
        """Nothing can be armed then; the service tells so, and tries again."""
        run("systemctl", "stop", "volorn.timer")
        unit = units.DROP_INS / "volorn.timer"
        unit.write_text("[Timer]\nOnCalendar=2099-01-01\n")
        try:
            run("systemctl", "daemon-reload")
            run("systemctl", "start", "volorn.timer", "volorn.service")
            self.assertTrue(waitFor(lambda: any("has a volorn.timer already" in line
                                                for line in units.journal("waketide", self.before))))
            self.assertTrue(waitFor(
                lambda: run("systemctl", "show", "-PSubState", "volorn-arm.service").strip() == "auto-restart"))
        finally:
            unit.unlink()


if __name__ == "__main__":
    systemd_host.main(units.install)
