"""Runs volornctl as a shell would: exit statuses, streams, and what becomes of its output."""

import fcntl
import json
import os
import pathlib
import pty
import re
import struct
import subprocess
import termios
import time

import host

PLAIN = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}

SAMPLE_STATE = pathlib.Path(__file__).parents[2] / "scripts/sample-state"
PLAN = "INSERT INTO preference VALUES ('com.zorvik.volorn', 'nextPlannedWakeupTime', 'date', 1e10)"

USAGE = """
bogus
--json
status metrics
status --bogus
status extra
status --state-dir
status --state-dir a --state-dir b
history --limit 0
history --limit 9223372036854775808
history --key
metrics --format text
metrics --output file
metrics --format openmetrics --json
metrics --value
metrics --key battery --format openmetrics
history --last 90d --since 2026-11-23
history --json --local
status --check --json
top --interval 0
top --interval 1s
top --count 0
top --count 99999999999999999999
top --sort cup
top --pid 1,0
top --user nobody-at-all
top --limit 0
"""
EMPTY_VALUES = """
metrics --format openmetrics --output= file
history --key= thermalLevel
history --key=
history --limit= 1
status --json=
--state-dir= . status
status --state-dir= .
top --count= 1
"""


def run(*arguments, **options):
    return host.run(host.VOLORNCTL, *arguments, **options)


def onTerminal(*arguments, columns=80, **environment):
    """What a terminal of that width is sent."""
    master, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    run(*arguments, stdout=terminal, env={**PLAIN, **environment})
    os.close(terminal)
    text = b""
    try:
        while True:  # the kernel may hand it over in pieces
            text += os.read(master, 65536)
    except OSError:  # nobody holds the other end any more
        os.close(master)
    return text.decode()


def executable(pid):
    """What the link leads to, as something that changes with it; none without a right to know or a link."""
    try:
        status = os.stat(f"/proc/{pid}/exe")
        return status.st_dev, status.st_ino, status.st_ctime_ns
    except OSError:
        return None


def buildId(path):
    """As readelf tells it, and the report shows it."""
    found = re.search(r"Build ID: ([0-9a-f]+)", host.run("readelf", "-n", path)[1])
    return (found[1] if found else "")[:32].ljust(32, "0")


class VolornctlTest(host.Test):
    def setUp(self):
        super().setUp()
        host.restore({})
        with host.opened() as database:
            host.createTables(database)
            database.executescript(
                f"INSERT INTO snapshot VALUES (1, 0.0); INSERT INTO metric VALUES (1, 1, 1, 3);"
                f"INSERT INTO metric_key VALUES (1, '{host.PREFIX}thermalLevel');"
            )

    def testHelpAndVersionAreResults(self):
        for arguments, text in (
            (["--help"], "--state-dir"),
            (["status", "--help"], ""),
            (["--version"], "volornctl 0.1.0\n"),
            (["metrics", "--version"], ""),
        ):
            status, output, errors = run(*arguments)
            self.assertEqual((status, errors), (0, ""), arguments)
            self.assertIn(text, output)

    def testABareCommandShowsHelp(self):
        self.assertEqual(run(), run("--help"))

    def testMisspeltWordsAreAnsweredWithTheNearest(self):
        for line, answer in (
            ("tpo", "not a command: tpo; did you mean top?"),
            ("xyz", "not a command: xyz"),
            ("top --intervall=1", "not an option of top: --intervall; did you mean --interval?"),
            ("--sate-dir . status", "not an option of status: --sate-dir; did you mean --state-dir?"),
            ("top more", "not an argument of top: more"),
            ("memory -o nmae", "--sort: not one of pid, name, uuid, resident: nmae; did you mean name?"),
        ):
            self.assertEqual(run(*line.split())[2], f"volornctl: {answer}; see volornctl --help\n")

    def testAMinusIsStandardOutput(self):
        arguments = "metrics --format openmetrics --state-dir .".split()
        plain = run(*arguments, cwd=host.STATE)
        self.assertEqual(run(*arguments, "--output", "-", cwd=host.STATE), plain)

    def testUsage(self):
        words = [line.split() for line in USAGE.splitlines()[1:]]
        words += [["status", "--state-dir", ""], [""], ["metrics", "--format", "openmetrics", "--output", ""]]
        for arguments in [*words, ["history", "--key", ""]]:
            *ended, errors = run(*arguments)
            self.assertEqual(ended, [2, ""], arguments)
            self.assertRegex(errors, r"\Avolornctl: .+; see volornctl --help\n\Z")

    def testAnEmptyValueDoesNotTakeTheNextWord(self):
        for line in EMPTY_VALUES.split("\n")[1:-1]:
            option = re.search(r"(\S+)=", line)[1]
            told = f"volornctl: {option}: its value is empty; see volornctl --help\n"
            self.assertEqual(run(*line.split(), cwd=host.LIB), (2, "", told), line)
        self.assertEqual(os.listdir(host.LIB), ["volorn"])

    def testStateDirectoryBeforeAndAfterTheCommand(self):
        for arguments in ("--state-dir . metrics --json", "metrics --json --state-dir=."):
            status, output, errors = run(*arguments.split(), cwd=host.STATE)
            self.assertEqual((status, errors), (0, ""), arguments)
            found = json.loads(output)
            self.assertEqual(found["takenAt"], "2001-01-01T00:00:00Z")
            self.assertEqual(found["metrics"], [{"key": f"{host.PREFIX}thermalLevel", "value": 3}])
        self.assertEqual(run("metrics", "--state-dir", "/missing")[:2], (3, ""))

    def testOutputThatCannotBeWritten(self):
        for arguments in (["--help"], ["--version"], ["status", "--json"]):
            with open("/dev/full", "w", encoding="ascii") as full:
                status, _, errors = run(*arguments, stdout=full)
            self.assertEqual(
                (status, errors), (1, "volornctl: standard output: No space left on device\n"), arguments
            )
            closed = run(*arguments, stdout=None, preexec_fn=lambda: os.close(1))
            self.assertEqual(closed[0], 1, arguments)

    def testAClosedPipeEndsItQuietly(self):
        reading, writing = os.pipe()
        os.close(reading)
        for command in ("status", "metrics", "history", "summary", "memory", "top"):
            self.assertEqual(run(command, stdout=writing), (0, None, ""), command)
        os.close(writing)

    def testColourOnATerminalAlone(self):
        for command in ("status", "metrics", "history"):
            self.assertIn("\x1b[1m", onTerminal(command, NO_COLOR=""))
            self.assertNotIn("\x1b", onTerminal(command, NO_COLOR="1"))
            self.assertNotIn("\x1b", run(command, env=PLAIN)[1])

    def testYearsFitTheTerminal(self):
        """Of a laptop's eleven years, at three widths; and one day."""
        for days, columns, arguments in (
            (4150, 120, ""),
            (4150, 80, "--key battery --key times"),
            (4150, 50, "--key jetsamLevel --since 2023-10-20 --until 2023-11-05"),
            (1, 80, ""),
        ):
            host.restore({})
            subprocess.run([SAMPLE_STATE, host.STATE, "--days", str(days)], check=True)
            shown = onTerminal("history", *arguments.split(), columns=columns, NO_COLOR="1")
            expected = pathlib.Path(__file__).parent / "kept" / f"history-{days}-{columns}.txt"
            self.assertEqual(shown.replace("\r", ""), expected.read_text(), expected.name)

    def testACheckEndsAsMonitoringPlugInsDo(self):
        damaged = f"{host.FILE}{time.strftime('.damaged-%Y%m%dT%H%M%SZ', time.gmtime())}"
        newest = time.time() - host.REFERENCE_DATE
        named = ["--state-dir", str(host.STATE)]  # so that no systemd is asked
        for change, status, text in (
            (lambda: None, 1, r"overdue: no snapshot for 49 hours; last snapshot \d+ d( \d+ h)? ago\n\Z"),
            (lambda: host.editState(f"UPDATE snapshot SET taken_at = {newest}"), 0, "fine: "),
            (lambda: host.editState(PLAN), 1, "clock: "),
            (lambda: host.editState("DELETE FROM metric", "DELETE FROM snapshot"), 2, "never: "),
            (lambda: host.editState("PRAGMA user_version = 99"), 3, "unknown: .*newer program"),
            (lambda: pathlib.Path(damaged).touch(), 2, "damaged: "),
            (lambda: os.remove(damaged), 3, "unknown: "),
            (host.FILE.unlink, 2, "never: "),
        ):
            change()
            *ended, errors = run("status", "--check", *named)
            self.assertEqual((ended[0], errors), (status, ""), text)
            self.assertRegex(ended[1], r"\A" + text)
        self.assertEqual(run("status", *named)[0], 3)
        with open("/dev/full", "w", encoding="ascii") as full:
            self.assertEqual(run("status", "--check", *named, stdout=full)[0], 3)

    def testAFullDiskIsToldBeforeItHurts(self):
        with host.mounted("-t", "tmpfs", "-o", "size=6m", "small", str(host.STATE)):
            subprocess.run([SAMPLE_STATE, host.STATE, "--days", "1"], check=True)
            status, output, _ = run("status", "--check", "--state-dir", str(host.STATE))
            self.assertEqual((status, output.partition(":")[0]), (1, "full"))

    def testIdentifiersAreThoseOfReadelf(self):
        before = {int(name): executable(name) for name in os.listdir("/proc") if name.isdigit()}
        compared = []
        for row in json.loads(host.run(host.VOLORNCTL, "memory", "--json")[1])["processes"]:
            pid = row["pid"]
            if "uuid" in row and before.get(pid):
                expected = buildId(f"/proc/{pid}/exe")
                if executable(pid) == before[pid]:  # else it may have ended before readelf looked
                    self.assertEqual(row["uuid"], expected, row)
                    compared.append(pid)
        self.assertIn(os.getpid(), compared)


if __name__ == "__main__":
    host.main()
