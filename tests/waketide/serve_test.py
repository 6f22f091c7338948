"""waketide serve, with a script in the daemon's place."""

import os
import shutil
import signal
import socket
import struct
import subprocess
import time

import host
from host import waitFor

WAKETIDE = str(host.PROGRAMS / "waketide")
DAY = host.DAY_SECONDS
PAGE = 4096  # what a look reads of the file at least, and the notices of a change do not
FLAPS = int(os.environ.get("VOLORN_FLAPS", "60"))
LATE_SECONDS = 120  # by which a busy machine may start the daemon late
STARTS = host.LIB / "starts"
LOG = host.LIB / "log"

# Notes its start and its process.
DAEMON = '#!/bin/sh\necho "$(date +%s.%N) $$" >>{starts}\n{body}\n'


def writeRow(opens, state=host.STATE):
    """With the file, where there is none."""
    state.mkdir(parents=True, exist_ok=True)
    with host.opened(state / "volorn.db") as database:
        database.execute("BEGIN IMMEDIATE")
        if database.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,):
            host.createTables(database)
        start = opens - host.REFERENCE_DATE
        database.execute("REPLACE INTO job VALUES (?, ?, ?)", (host.JOB, start, start + 7 * DAY))
        database.execute("COMMIT")


def registering(seconds):
    opens = f"(julianday() - 2440587.5) * 86400 - {host.REFERENCE_DATE} + {seconds}"
    row = f"REPLACE INTO job SELECT '{host.JOB}', i, i + 604800.0 FROM (SELECT {opens} i)"
    return f'sqlite3 -cmd ".timeout 30000" {host.FILE} "{row}"'


def daemon(body="", path=host.LIB / "daemon"):
    path.write_text(DAEMON.format(starts=STARTS, body=body))
    path.chmod(0o755)
    return str(path)


def starts():
    """(time, process) of each."""
    lines = STARTS.read_text().splitlines(keepends=True) if STARTS.exists() else []
    return [(float(line.split()[0]), int(line.split()[1])) for line in lines if line.endswith("\n")]


def alive(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            return stat.read().rpartition(")")[2].split()[0] not in "ZX"
    except OSError:
        return False


class Server:
    def __init__(self, test, *arguments, program=WAKETIDE, state=host.STATE):
        self.test = test
        with open(LOG, "w", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                [program, "serve", "--state-dir", str(state), *arguments], stderr=log
            )
        test.addCleanup(lambda: (self.process.kill(), self.process.wait()))

    def read(self, name):
        with open(f"/proc/{self.process.pid}/{name}", encoding="utf-8") as file:
            return file.read()

    def bytesRead(self):
        return int(self.read("io").split()[1])

    def sleeps(self, call="poll"):
        """Waits until it waits itself, in the kernel's `call`."""
        self.test.assertTrue(waitFor(lambda: call in self.read("wchan")), call)

    def ran(self, times):
        """Waits until the daemon was started so many times and what the last run left was looked at."""
        self.test.assertTrue(waitFor(lambda: len(starts()) == times), starts())
        self.test.assertTrue(waitFor(lambda: not os.path.exists(f"/proc/{starts()[-1][1]}")))
        self.sleeps()

    def says(self, text):
        self.test.assertTrue(waitFor(lambda: text in LOG.read_text()), f"{text}: {LOG.read_text()}")

    def ends(self, number=signal.SIGTERM, status=0):
        """A busy machine takes longer than the second in which it is to be done."""
        self.process.send_signal(number)
        self.test.assertEqual(self.process.wait(timeout=300), status)


class ServeTest(host.Test):
    def setUp(self):
        super().setUp()
        host.keepOffMidnight(60)

    def serve(self, body="", *arguments):
        return Server(self, "--daemon", daemon(body), *arguments)

    def testWindowThatOpens(self):
        opens = time.time() + 3
        writeRow(opens)
        looked_at = host.LIB / "looked at"
        server = self.serve(f"until [ -e '{looked_at}' ]; do sleep 0.05; done; {registering(DAY)}")
        server.sleeps()
        read = server.bytesRead()
        self.assertTrue(waitFor(starts))
        self.assertLess(server.bytesRead(), read + 10 * PAGE, "it looked while nothing happened")
        looked_at.touch()
        self.assertTrue(opens <= starts()[0][0] < opens + LATE_SECONDS)
        server.ran(1)
        writeRow(time.time() + DAY / 4)
        opens = time.time() + 0.5
        writeRow(opens)
        server.ran(2)
        self.assertTrue(opens <= starts()[1][0] < opens + LATE_SECONDS)
        # A file that takes the old one's place is noticed, too.
        replacement = host.LIB / "replacement"
        writeRow(time.time(), replacement)
        os.rename(replacement / "volorn.db", host.FILE)
        server.ran(3)
        server.ends()
        self.assertEqual(len(starts()), 3)

    def testFolderComesGoesAndIsExchanged(self):
        above = host.LIB / "above"
        state = above / "lib" / "volorn"
        server = Server(self, "--daemon", daemon(), state=state)
        server.ran(1)  # no row
        writeRow(time.time(), state)
        server.ran(2)  # an open row appears
        os.rename(state, host.LIB / "old")
        server.ran(3)  # no row any more
        shutil.rmtree(above)
        writeRow(time.time(), state)
        server.ran(4)  # another open row appears
        server.ends()

    def testRowThatStaysDueIsStartedOnce(self):
        for body, said in (
            ("exit 3", "ended with status 3"),
            ("kill -SEGV $$", "was ended by SIGSEGV"),
            (registering(-8 * DAY), ""),
            (registering(10 * DAY), ""),
        ):
            with self.subTest(body):
                STARTS.unlink(missing_ok=True)
                writeRow(time.time() - 5)
                server = self.serve(body)
                server.ran(1)
                server.says(said)
                # A file that is touched is looked at, and its row known again.
                read = server.bytesRead()
                os.utime(host.FILE)
                self.assertTrue(waitFor(lambda: server.bytesRead() >= read + PAGE))
                server.sleeps()
                server.ends()
                self.assertEqual(LOG.read_text().count("started"), 1)

    def testDaemonThatCannotBeExecuted(self):
        server = Server(self, "--daemon", "/missing")
        server.says("ended with status 127")
        server.says("/missing: No such file or directory")

    def testDaemonBesideTheProgram(self):
        daemon(path=host.LIB / "volornd")
        Server(self, program=host.reachable(WAKETIDE))
        self.assertTrue(waitFor(starts))

    def testStopWhileNothingRuns(self):
        writeRow(time.time() + DAY / 2)
        for number in (signal.SIGTERM, signal.SIGINT):
            server = self.serve()
            server.sleeps()
            server.ends(number)
        with host.opened() as database:
            database.execute("BEGIN EXCLUSIVE")
            server = self.serve()
            server.sleeps("nanosleep")
            server.ends()
        self.assertEqual(starts(), [])

    def testNoChildIsLeft(self):
        ready = host.LIB / "ready"
        for number, status in ((signal.SIGTERM, 0), (signal.SIGKILL, -signal.SIGKILL)):
            with self.subTest(number):
                ready.unlink(missing_ok=True)
                server = self.serve(f"trap '' TERM; touch {ready}; exec sleep 3600")
                self.assertTrue(waitFor(ready.exists))
                server.ends(number, status)
                self.assertTrue(waitFor(lambda: not alive(starts()[-1][1])))

    def testRunThatDoesNotEnd(self):
        server = self.serve("exec sleep 3600", "--run-limit", "1")
        server.says("was ended by SIGKILL")
        server.says("did not end within 1 s")
        for _, pid in starts():  # none, where the limit came before it could note its start
            self.assertFalse(alive(pid))
        server.ends()

    def testWhatTheDaemonInherits(self):
        result = host.LIB / "result"
        writeRow(time.time())
        words = "(grep -c SigBlk:.0000000000000000 /proc/self/status; ls -v /proc/$$/fd | head -n 3; wc -c)"
        self.serve(f"{words} | xargs >{result}.new; mv {result}.new {result}")
        self.assertTrue(waitFor(result.exists))
        self.assertEqual(result.read_text(), "1 0 1 2 0\n")

    def testMarksAtEachEdge(self):
        """A gauge that tells nothing new, a plug that flaps, and the end; the kernel hands on the events that we make in
        a network of our own."""
        supplies = host.SYS_CLASS / "power_supply"
        for file, text in (
            ("AC/type", "Mains"),
            ("AC/online", "1"),
            ("BAT0/type", "Battery"),
            ("BAT0/status", "Full"),
        ):
            (supplies / file).parent.mkdir(parents=True, exist_ok=True)
            (supplies / file).write_text(text)
        writeRow(time.time() + DAY / 2)
        server = self.serve()
        self.assertTrue(waitFor(host.books))
        kernel = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, 15)  # NETLINK_KOBJECT_UEVENT
        self.addCleanup(kernel.close)

        def change(online):
            (supplies / "BAT0/status").write_text("Charging" if online else "Discharging")
            (supplies / "AC/online").write_text(str(int(online)))
            event = b"change@/AC\0ACTION=change\0SUBSYSTEM=power_supply\0"
            kernel.sendto(struct.pack("IHHII", 16 + len(event), 16, 1, 0, 0) + event, (0, 0))

        on_battery = 0
        for number in range(FLAPS):
            since = time.monotonic()
            change(number % 2)
            time.sleep(0.2)
            on_battery += 0 if number % 2 else time.monotonic() - since
        self.assertTrue(waitFor(lambda: host.books().plugged_in == 1))
        self.assertAlmostEqual(host.books().usage / 1e9, on_battery, delta=2)
        for _ in range(5):  # no news
            time.sleep(0.3)
            change(True)
        time.sleep(1)
        started = server.read("stat").split()[15:17]
        for _ in range(20):
            change(True)
        server.sleeps()
        self.assertEqual(server.read("stat").split()[15:17], started)
        change(False)
        self.assertTrue(waitFor(lambda: host.books().plugged_in == 0))
        server.ends()
        self.assertEqual(host.books().is_last, 1)
        self.assertEqual(LOG.read_text(), "")


if __name__ == "__main__":
    host.main("--net")
