"""waketide serve, with a script in the daemon's place. Arguments: the folder of the built programs."""
import os
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import state_tables

BUILD = os.path.abspath(sys.argv.pop(1))
REFERENCE_DATE = 978307200  # seconds since 1970
DAY = 86400
PAGE = 4096  # what a look reads of the file at least, and the notices of a change do not
JOB = "com.zorvik.volorn.logcreation"
LATE_SECONDS = 120  # by which a busy machine may start the daemon late

# Notes its start and its process.
DAEMON = """#!/usr/bin/python3
import os, signal, sys, time
sys.dont_write_bytecode = True
sys.path.insert(0, {tests!r})
with open({starts!r}, "a") as starts:
    starts.write("%f %d\\n" % (time.time(), os.getpid()))
{body}
"""


def wait_for(condition, seconds=300):
    """What the condition gives as soon as it is true; else its last answer."""
    deadline = time.monotonic() + seconds
    while not (answer := condition()) and time.monotonic() < deadline:
        time.sleep(0.005)
    return answer


def write_row(directory, start_1970):
    os.makedirs(directory, exist_ok=True)
    database = sqlite3.connect(os.path.join(directory, "volorn.db"), isolation_level=None)
    start = start_1970 - REFERENCE_DATE
    database.execute("PRAGMA journal_mode = PERSIST")
    database.execute("BEGIN IMMEDIATE")
    if database.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,):
        state_tables.create(database)
    database.execute("REPLACE INTO job VALUES (?, ?, ?)", (JOB, start, start + 7 * DAY))
    database.execute("COMMIT")
    database.close()


def alive(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            return stat.read().rpartition(")")[2].split()[0] not in "ZX"
    except OSError:
        return False


def to_midnight():
    return DAY - time.time() % DAY


class ServeTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="volorn-test-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.state = os.path.join(self.folder, "state")
        self.starts_file = os.path.join(self.folder, "starts")
        self.log_file = os.path.join(self.folder, "log")
        if to_midnight() < 60:  # a row that stays open is started again then
            time.sleep(to_midnight() + 1)

    def daemon(self, body="", name="daemon"):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as script:
            script.write(DAEMON.format(tests=os.path.dirname(os.path.abspath(__file__)),
                                       starts=self.starts_file, body=body))
        os.chmod(path, 0o755)
        return path

    def registering(self, seconds_from_now):
        return (f"sys.argv[1:] = ['.']; import serve_test, time\n"
                f"serve_test.write_row({self.state!r}, time.time() + {seconds_from_now})")

    def serve(self, daemon, *more, program=os.path.join(BUILD, "waketide")):
        arguments = [program, "serve", "--state-dir", self.state, *more]
        if daemon:
            arguments += ["--daemon", daemon]
        with open(self.log_file, "w", encoding="utf-8") as log:
            process = subprocess.Popen(arguments, stderr=log)
        self.addCleanup(lambda: (process.kill(), process.wait()))
        return process

    def starts(self):
        """(time, process) of each."""
        try:
            with open(self.starts_file, encoding="utf-8") as starts:
                return [(float(line.split()[0]), int(line.split()[1])) for line in starts if line.endswith("\n")]
        except FileNotFoundError:
            return []

    def log(self):
        with open(self.log_file, encoding="utf-8") as log:
            return log.read()

    def ends(self, process, number=signal.SIGTERM):
        """Stops it: its status. A busy machine takes longer than the second in which it is to be done."""
        process.send_signal(number)
        return process.wait(timeout=300)

    @staticmethod
    def waits_in(process, call):
        """Waits until it waits itself, in the kernel's `call`."""
        def state():
            with open(f"/proc/{process.pid}/wchan", encoding="utf-8") as channel:
                return call in channel.read()
        return wait_for(state)

    def sleeps(self, process):
        return self.waits_in(process, "poll")

    def ran(self, process, times):
        """Waits until the daemon was started so many times and what the last run left was looked at."""
        return (wait_for(lambda: len(self.starts()) == times)
                and wait_for(lambda: not os.path.exists(f"/proc/{self.starts()[-1][1]}"))
                and self.sleeps(process))

    @staticmethod
    def bytes_read(process):
        with open(f"/proc/{process.pid}/io", encoding="utf-8") as counters:
            return int(counters.readline().split()[1])

    def test_window_that_opens_soon(self):
        opens = time.time() + 2
        write_row(self.state, opens)
        process = self.serve(self.daemon(self.registering(DAY)))
        self.assertTrue(self.sleeps(process))
        read = self.bytes_read(process)
        self.assertTrue(wait_for(self.starts))
        self.assertLess(self.bytes_read(process), read + 10 * PAGE, "it looked while nothing happened")
        self.assertGreaterEqual(self.starts()[0][0], opens)
        self.assertLess(self.starts()[0][0], opens + LATE_SECONDS)
        self.assertEqual(self.ends(process), 0)
        self.assertEqual(len(self.starts()), 1)

    def test_row_changes_while_asleep(self):
        write_row(self.state, time.time() + DAY / 2)
        process = self.serve(self.daemon(self.registering(DAY)))
        self.assertTrue(self.sleeps(process))
        write_row(self.state, time.time() + DAY / 4)
        self.assertEqual(self.starts(), [])
        opens = time.time() + 0.5
        write_row(self.state, opens)
        self.assertTrue(wait_for(self.starts))
        self.assertTrue(opens <= self.starts()[0][0] < opens + LATE_SECONDS)
        self.assertTrue(self.ran(process, 1))
        # A file that takes the old one's place is noticed, too.
        replacement = os.path.join(self.folder, "replacement")
        write_row(replacement, time.time())
        os.rename(os.path.join(replacement, "volorn.db"), os.path.join(self.state, "volorn.db"))
        self.assertTrue(self.ran(process, 2))
        self.assertEqual(self.ends(process), 0)

    def test_folder_comes_goes_and_is_exchanged(self):
        self.state = os.path.join(self.folder, "var", "lib", "volorn")
        process = self.serve(self.daemon())
        self.assertTrue(self.ran(process, 1), "no row")
        write_row(self.state, time.time())
        self.assertTrue(self.ran(process, 2), "an open row appears")
        os.rename(self.state, self.state + ".old")
        self.assertTrue(self.ran(process, 3), "no row any more")
        shutil.rmtree(os.path.join(self.folder, "var"))
        write_row(self.state, time.time())
        self.assertTrue(self.ran(process, 4), "another open row appears")
        self.assertEqual(self.ends(process), 0)

    def test_row_that_stays_due_is_started_once(self):
        bodies = {
            "succeeds": "",
            "fails": "sys.exit(3)",
            "crashes": "os.kill(os.getpid(), signal.SIGSEGV)",
            "registers an expired row": self.registering(-8 * DAY),
            "registers one that is too far ahead": self.registering(10 * DAY),
        }
        said = {"fails": "ended with status 3", "crashes": "was ended by SIGSEGV"}
        for name, body in bodies.items():
            with self.subTest(name):
                if os.path.exists(self.starts_file):
                    os.unlink(self.starts_file)
                write_row(self.state, time.time() - 5)
                process = self.serve(self.daemon(body))
                self.assertTrue(self.ran(process, 1))
                self.assertIn(said.get(name, ""), self.log())
                # A file that is touched is looked at, and its row known again.
                read = self.bytes_read(process)
                os.utime(os.path.join(self.state, "volorn.db"))
                self.assertTrue(wait_for(lambda: self.bytes_read(process) >= read + PAGE))
                self.assertTrue(self.sleeps(process))
                self.assertEqual(self.ends(process), 0)
                self.assertEqual(self.log().count("started"), 1)

    def test_daemon_that_cannot_be_executed(self):
        process = self.serve(os.path.join(self.folder, "missing"))
        self.assertTrue(wait_for(lambda: "ended with status 127" in self.log()))
        self.assertIn("missing: No such file or directory", self.log())
        self.assertEqual(self.ends(process), 0)
        self.assertEqual(self.log().count("started"), 1)

    def test_daemon_beside_the_program(self):
        program = shutil.copy(os.path.join(BUILD, "waketide"), self.folder)
        self.daemon(name="volornd")
        self.serve(None, program=program)
        self.assertTrue(wait_for(self.starts))

    def test_stop_while_idle(self):
        write_row(self.state, time.time() + DAY / 2)
        for number in (signal.SIGTERM, signal.SIGINT):
            process = self.serve(self.daemon())
            self.assertTrue(self.sleeps(process))
            self.assertEqual(self.ends(process, number), 0)
        self.assertEqual(self.starts(), [])

    def test_stop_while_the_file_is_locked(self):
        write_row(self.state, time.time() + DAY / 2)
        database = sqlite3.connect(os.path.join(self.state, "volorn.db"), isolation_level=None)
        database.execute("BEGIN EXCLUSIVE")
        process = self.serve(self.daemon())
        self.assertTrue(self.waits_in(process, "nanosleep"))
        self.assertEqual(self.ends(process), 0)
        database.close()

    def test_no_child_is_left(self):
        ignores = "signal.signal(signal.SIGTERM, signal.SIG_IGN); open({!r}, 'w'); time.sleep(3600)"
        for number, status in ((signal.SIGTERM, 0), (signal.SIGKILL, -signal.SIGKILL)):
            with self.subTest(number):
                ready = os.path.join(self.folder, f"ready{number}")
                process = self.serve(self.daemon(ignores.format(ready)))
                self.assertTrue(wait_for(lambda: os.path.exists(ready)))
                self.assertEqual(self.ends(process, number), status)
                self.assertTrue(wait_for(lambda: not alive(self.starts()[-1][1])))

    def test_run_that_does_not_end(self):
        process = self.serve(self.daemon("time.sleep(3600)"), "--run-limit", "1")
        self.assertTrue(wait_for(lambda: "was ended by SIGKILL" in self.log()))
        self.assertIn("did not end within 1 s", self.log())
        for _, pid in self.starts():  # none, where the limit came before it could note its start
            self.assertFalse(alive(pid))
        self.assertEqual(self.ends(process), 0)

    def test_what_the_daemon_inherits(self):
        result = os.path.join(self.folder, "result")
        write_row(self.state, time.time())
        self.serve(self.daemon(f"""
status = open("/proc/self/status").read()
with open({result!r} + ".new", "w") as out:
    out.write("%s %s %d" % ([line.split()[1] for line in status.splitlines() if line.startswith("SigBlk")],
                            sorted(os.listdir("/proc/self/fd"))[:3], len(sys.stdin.read())))
os.rename({result!r} + ".new", {result!r})"""))
        self.assertTrue(wait_for(lambda: os.path.exists(result)))
        with open(result, encoding="utf-8") as found:
            self.assertEqual(found.read(), "['0000000000000000'] ['0', '1', '2'] 0")

    def test_usage(self):
        for arguments, status, text in (([], 2, "subcommand"), (["nap"], 2, "subcommand"), (["serve", "--nap"], 2, "--nap"),
                                        (["serve", "--run-limit", "0"], 2, "--run-limit"),
                                        (["serve", "--state-dir", ""], 2, "--state-dir"),
                                        (["--version"], 0, "waketide 0.1.0\n"), (["--help"], 0, "serve"),
                                        (["serve", "--help"], 0, "--state-dir")):
            result = subprocess.run([os.path.join(BUILD, "waketide"), *arguments], capture_output=True, text=True,
                                    timeout=300, check=False)
            self.assertEqual(result.returncode, status, arguments)
            self.assertIn(text, result.stderr if status else result.stdout)


if __name__ == "__main__":
    unittest.main()
