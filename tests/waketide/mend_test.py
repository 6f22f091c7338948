"""waketide mend: a plan that only a wrong clock can have made is cleared once the clock can be trusted."""

import dataclasses
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

WAKETIDE = str(host.PROGRAMS / "waketide")
TRACE = host.LIB / "trace"
FAKETIME = "/usr/$LIB/faketime/libfaketime.so.1"

# What the kernel is made to say of its clock. Each C library asks by one of two names.
SYNCHRONISED, UNSYNCHRONISED, REFUSES = "retval=0", "retval=5", "error=EPERM"

PATIENCE_SECONDS = 2 * host.DAY_SECONDS
UP_FOR_LONG = time.clock_gettime(time.CLOCK_BOOTTIME) >= PATIENCE_SECONDS

CLEARS = "clearing it, so that the daemon plans anew"
STAYS = "it stays until the clock is synchronised or the machine has been up for 48 hours"


def traced(clock, *more, command=("mend",)):
    return ["strace", "-f", "-qq", "-o", str(TRACE), "-e", f"inject=adjtimex,clock_adjtime:{clock}", *more, WAKETIDE,
            *command]


def isCleared(state):
    return "nextPlannedWakeupTime" not in state.preferences and not state.jobs


class MendTest(host.Test):
    def setUp(self):
        super().setUp()
        self.runDaemon()
        self.usual = host.save()
        host.age(-10)
        self.before = host.readState()
        self.far = host.save()
        self.cleared = dataclasses.replace(self.before, jobs={}, preferences={
            key: value for key, value in self.before.preferences.items() if key != "nextPlannedWakeupTime"})

    def mend(self, clock=SYNCHRONISED):
        return self.runDaemon(traced(clock))

    def testThatTheDaemonPlansAnew(self):
        log = self.mend()
        self.assertRegex(log[0], r"^the stored plan lies 1[01]\.\d days ahead")
        self.assertEqual(log[1:], [CLEARS])
        self.assertEqual(host.readState(), self.cleared)
        self.assertEqual(self.runDaemon(), host.NEW)
        self.checkRun(dataclasses.replace(self.cleared, preferences={}), host.readState())
        self.assertEqual(self.mend(), [])

    def testWhenItStays(self):
        for clock, reason in ((UNSYNCHRONISED, []),
                              (REFUSES, ["the kernel does not tell of its clock: Operation not permitted"])):
            with self.subTest(clock):
                host.restore(self.far)
                log = self.mend(clock)
                self.assertEqual(log[1:], reason + [CLEARS if UP_FOR_LONG else STAYS])
                self.assertEqual(host.readState(), self.cleared if UP_FOR_LONG else self.before)

    def testFoldersWithNothingToMend(self):
        for name, files in (("plan for tomorrow", self.usual), ("no folder", None), ("no file", {}),
                            ("empty file", {"volorn.db": b""}), ("no database", {"volorn.db": b"nothing" * 1000})):
            with self.subTest(name):
                host.restore(files)
                self.assertEqual(self.mend(), [])
                self.assertEqual((host.STATE.exists(), host.save()), (files is not None, files or {}))

    def testPlanThatTheJobAloneHolds(self):
        host.editState("DELETE FROM preference WHERE key = 'nextPlannedWakeupTime'")
        self.assertEqual(self.mend()[1:], [CLEARS])
        self.assertEqual(host.readState(), self.cleared)

    def testFileThatCannotBeWritten(self):
        with host.mounted("--bind", "-o", "ro", str(host.STATE), str(host.STATE)):
            log = self.mend()
            self.assertRegex("\n".join(log[1:]), f"^state file {host.FILE}: .*; nothing of this run is kept$")
        self.assertEqual(host.save(), self.far)

    def testInAnothersFolder(self):
        owner = host.OTHER_USER if host.HAS_OTHER_USERS else 0
        host.restore(self.far, owner)
        self.mend()
        self.assertEqual(host.readState(), self.cleared)
        self.assertEqual(host.owners(), {(owner, owner)})

    def testClockThatIsSetRightMeanwhile(self):
        """A plan for tomorrow, which a clock of 1970 calls far ahead, stays."""
        host.restore(self.usual)
        usual = host.readState()
        clock = host.LIB / "clock"
        faked = {"LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": clock, "FAKETIME_NO_CACHE": 1,
                 "FAKETIME_DONT_FAKE_MONOTONIC": 1, "TZ": "UTC0"}
        environment = [part for name, value in faked.items() for part in ("-E", f"{name}={value}")]
        asked = re.compile(r"adjtimex|clock_adjtime")
        waits = re.compile(r"flock\(.*EAGAIN")
        for when, seen, lines, delay in (("while the kernel is asked", asked, 0, ":delay_enter=2000000"),
                                         ("while another holds the lock", waits, 1, "")):
            with self.subTest(when), open(host.STATE / "volorn.lock") as lock:
                if seen is waits:
                    fcntl.flock(lock, fcntl.LOCK_EX)
                clock.write_text("@1970-01-01 00:01:00")
                TRACE.write_text("")
                mending = subprocess.Popen(traced(SYNCHRONISED + delay, *environment), stdin=subprocess.DEVNULL,
                                           stderr=subprocess.PIPE, text=True)
                while mending.poll() is None and not seen.search(TRACE.read_text()):
                    time.sleep(0.01)
                clock.write_text("+0")
                fcntl.flock(lock, fcntl.LOCK_UN)
                log = mending.communicate(timeout=120)[1].splitlines()
                self.assertEqual((mending.returncode, len(log)), (0, lines), log)
                self.assertEqual(host.readState(), usual)

    def testManyAtOnce(self):
        mendings = [subprocess.Popen(traced(SYNCHRONISED), stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                    for _ in range(8)]
        logs = [mending.communicate(timeout=120)[1] for mending in mendings]
        self.assertEqual([mending.returncode for mending in mendings], [0] * len(mendings), logs)
        self.assertEqual("".join(logs).count(CLEARS), 1, logs)
        self.assertNotIn("state file", "".join(logs))
        self.assertEqual(host.readState(), self.cleared)

    def testKilledOnTheWay(self):
        self.mend()
        calls = re.findall(r"^\d+ +(f?sync|fdatasync|flock|fcntl|openat|pwrite64|ftruncate|unlink)\(", TRACE.read_text(),
                           re.MULTILINE)
        self.assertGreater(len(calls), 20, "a trace of a whole mending")
        found = []
        for number, name in enumerate(calls):
            host.restore(self.far)
            ordinal = calls[:number + 1].count(name)
            killed = subprocess.run(traced(SYNCHRONISED, "-e", f"inject={name}:signal=SIGKILL:when={ordinal}"),
                                    stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120, check=False)
            with self.subTest(f"{name} number {ordinal}"):
                self.assertIn(killed.returncode, (0, -signal.SIGKILL))
                left = host.save()
                state = host.readCopy(left)
                self.assertIn(state, (self.before, self.cleared))
                found.append((isCleared(state), left["volorn.db-journal"][:8] != bytes(8)))
                self.assertEqual(self.mend()[1:], [] if isCleared(state) else [CLEARS])
                self.assertEqual(host.readState(), self.cleared)
        # Some were cut off with a journal that the next one had to take back first.
        self.assertEqual(set(found), {(False, False), (False, True), (True, False)})

    def testBeforeEachStartThatServeMakes(self):
        with open(host.LIB / "log", "w", encoding="utf-8") as log:
            server = subprocess.Popen(traced(SYNCHRONISED, command=("serve", "--daemon", host.VOLORND)),
                                      stdin=subprocess.DEVNULL, stderr=log, start_new_session=True)
        try:
            deadline = time.monotonic() + 60
            while len(host.readState().snapshots) < 2 and time.monotonic() < deadline:
                time.sleep(0.05)
        finally:
            os.killpg(server.pid, signal.SIGKILL)
            server.wait()
        lines = (host.LIB / "log").read_text().splitlines()
        self.checkRun(dataclasses.replace(self.cleared, preferences={}), host.readState())
        started = [line for line in lines if line.startswith("waketide: started")]
        self.assertEqual(len(started), 1, lines)
        self.assertLess(lines.index(CLEARS), lines.index(started[0]))


if __name__ == "__main__":
    host.main()
