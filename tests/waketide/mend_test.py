"""waketide mend: a plan that only a wrong clock can have made is cleared once the clock can be trusted."""

import dataclasses
import fcntl
import os
import re
import signal
import subprocess
import time

import host
from host import CLEARS, STAYS

MEND = [str(host.PROGRAMS / "waketide"), "mend"]

# What the kernel is made to say of its clock. Each C library asks by one of two names.
SYNCHRONISED, UNSYNCHRONISED, REFUSES = (
    f"inject=adjtimex,clock_adjtime:{answer}" for answer in ("retval=0", "retval=5", "error=EPERM")
)

UP_FOR_LONG = time.clock_gettime(time.CLOCK_BOOTTIME) >= 2 * host.DAY_SECONDS


def started(command, *rules, **options):
    return subprocess.Popen(host.traced(command, *rules), stderr=subprocess.PIPE, text=True, **options)


class MendTest(host.Test):
    def setUp(self):
        super().setUp()
        self.runDaemon()
        self.usual = host.save()
        host.age(-10)
        self.before = host.readState()
        self.far = host.save()
        kept = {
            key: value for key, value in self.before.preferences.items() if key != "nextPlannedWakeupTime"
        }
        self.cleared = dataclasses.replace(self.before, jobs={}, preferences=kept)

    def mend(self, clock=SYNCHRONISED):
        return self.runDaemon(host.traced(MEND, clock))

    def testThatTheDaemonPlansAnew(self):
        log = self.mend()
        self.assertRegex(log[0], r"^the stored plan lies 1[01]\.\d days ahead")
        self.assertEqual(log[1:], [CLEARS])
        self.assertEqual(host.readState(), self.cleared)
        self.assertEqual(self.runDaemon(), host.NEW)
        self.checkRun(dataclasses.replace(self.cleared, preferences={}), host.readState())
        self.assertEqual(self.mend(), [])

    def testWhenItStays(self):
        refused = "the kernel does not tell of its clock: Operation not permitted"
        for clock, reason in ((UNSYNCHRONISED, []), (REFUSES, [refused])):
            with self.subTest(clock):
                host.restore(self.far)
                self.assertEqual(self.mend(clock)[1:], reason + [CLEARS if UP_FOR_LONG else STAYS])
                self.assertEqual(host.readState(), self.cleared if UP_FOR_LONG else self.before)

    def testFoldersWithNothingToMend(self):
        for files in (self.usual, None, {}, {"volorn.db": b""}, {"volorn.db": b"nothing" * 1000}):
            with self.subTest(str(files)[:40]):
                host.restore(files)
                self.assertEqual(self.mend(), [])
                self.assertEqual((host.STATE.exists(), host.save()), (files is not None, files or {}))

    def testPlanThatTheJobAloneHoldsInAnothersFolder(self):
        owner = host.OTHER_USER if host.HAS_OTHER_USERS else 0
        host.restore(self.far, owner)
        host.editState("DELETE FROM preference WHERE key = 'nextPlannedWakeupTime'")
        self.assertEqual(self.mend()[1:], [CLEARS])
        self.assertEqual(host.readState(), self.cleared)
        self.assertEqual(host.owners(), {(owner, owner)})

    def testFileThatCannotBeWritten(self):
        with host.mounted("--bind", "-o", "ro", str(host.STATE), str(host.STATE)):
            log = "\n".join(self.mend()[1:])
        self.assertRegex(log, f"^state file {host.FILE}: .*; nothing of this run is kept$")
        self.assertEqual(host.save(), self.far)

    def testClockThatIsSetRightMeanwhile(self):
        """A plan for tomorrow, which a clock of 1970 calls far ahead, stays."""
        host.restore(self.usual)
        usual = host.readState()
        clock = host.LIB / "clock"
        faked = {
            "LD_PRELOAD": "/usr/$LIB/faketime/libfaketime.so.1",
            "FAKETIME_TIMESTAMP_FILE": clock,
            "FAKETIME_NO_CACHE": 1,
            "FAKETIME_DONT_FAKE_MONOTONIC": 1,
            "TZ": "UTC0",
        }
        command = [*(part for name, value in faked.items() for part in ("-E", f"{name}={value}")), *MEND]
        for seen, lines, delay in (
            (r"adjtimex|clock_adjtime", 0, ":delay_enter=2000000"),
            (r"flock\(.*EAGAIN", 1, ""),  # which another holds
        ):
            with self.subTest(seen), open(host.STATE / "volorn.lock") as lock:
                if lines:
                    fcntl.flock(lock, fcntl.LOCK_EX)
                clock.write_text("@1970-01-01 00:01:00")
                host.TRACE.write_text("")
                mending = started(command, SYNCHRONISED + delay)
                host.waitFor(lambda: mending.poll() is not None or re.search(seen, host.TRACE.read_text()))
                clock.write_text("+0")
                fcntl.flock(lock, fcntl.LOCK_UN)
                log = mending.communicate(timeout=120)[1].splitlines()
                self.assertEqual((mending.returncode, len(log)), (0, lines), log)
                self.assertEqual(host.readState(), usual)

    def testBeforeEachStartThatServeMakes(self):
        serve = [MEND[0], "serve", "--daemon", host.VOLORND]
        with started(serve, SYNCHRONISED, start_new_session=True) as server:
            try:
                host.waitFor(lambda: len(host.readState().snapshots) == 2)
            finally:
                os.killpg(server.pid, signal.SIGKILL)
            lines = server.communicate()[1].splitlines()
        self.checkRun(dataclasses.replace(self.cleared, preferences={}), host.readState())
        (start,) = [line for line in lines if line.startswith("waketide: started")]
        self.assertLess(lines.index(CLEARS), lines.index(start))


if __name__ == "__main__":
    host.main()
