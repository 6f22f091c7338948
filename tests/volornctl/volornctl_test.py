"""Runs volornctl as a shell would: exit statuses, streams, and what becomes of its output."""

import fcntl
import json
import os
import pathlib
import pty
import re
import shutil
import sqlite3
import struct
import subprocess
import sys
import tempfile
import termios
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import state_tables

PROGRAM = os.path.abspath(os.path.join(sys.argv.pop(1), "volornctl"))

SNAPSHOT = """
INSERT INTO snapshot VALUES (1, 0.0);
INSERT INTO metric_key VALUES (1, 'com.zorvik.snapshot.thermalLevel');
INSERT INTO metric VALUES (1, 1, 1, 3);
"""


def run(*arguments, **options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": 60, **options}
    return subprocess.run([PROGRAM, *arguments], text=True, check=False, **options)


PLAIN = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}


def on_terminal(*arguments, columns=80, **environment):
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


class VolornctlTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        database = sqlite3.connect(os.path.join(self.folder, "volorn.db"))
        state_tables.create(database)
        database.executescript(SNAPSHOT)
        database.close()

    def test_help_and_version_are_results(self):
        for arguments in (["--help"], ["status", "--help"], ["--version"], ["metrics", "--version"]):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stderr), (0, ""), arguments)
        self.assertEqual(run("--version").stdout, "volornctl 0.1.0\n")
        self.assertIn("--state-dir", run("--help").stdout)

    def test_usage(self):
        for arguments in ([], ["bogus"], ["--json"], ["status", "metrics"], ["status", "--bogus"],
                          ["status", "extra"], ["status", "--state-dir"], ["status", "--state-dir", ""],
                          ["status", "--state-dir", "a", "--state-dir", "b"], ["history", "--limit", "0"],
                          ["history", "--limit", "1x"], ["history", "--key"], ["metrics", "--format", "text"],
                          ["history", "--limit", "-1"], ["history", "--limit", "9223372036854775808"],
                          ["metrics", "--output", "file"], ["metrics", "--format", "openmetrics", "--json"],
                          [""], ["history", "--key", ""], ["metrics", "--format", "openmetrics", "--output", ""]):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stdout), (2, ""), arguments)
            self.assertRegex(done.stderr, r"\Avolornctl: .+; see volornctl --help\n\Z")

    def test_an_empty_value_does_not_take_the_next_word(self):
        for option, *arguments in (("--output", "metrics", "--format", "openmetrics", "--output=", "file"),
                                   ("--key", "history", "--key=", "thermalLevel"), ("--key", "history", "--key="),
                                   ("--limit", "history", "--limit=", "1"), ("--json", "status", "--json="),
                                   ("--state-dir", "--state-dir=", ".", "status"),
                                   ("--state-dir", "status", "--state-dir=", "."), ("--count", "top", "--count=", "1")):
            done = run(*arguments, cwd=self.folder)
            self.assertEqual((done.returncode, done.stdout), (2, ""), arguments)
            self.assertEqual(done.stderr, f"volornctl: {option}: its value is empty; see volornctl --help\n")
        self.assertEqual(os.listdir(self.folder), ["volorn.db"])

    def test_state_directory_before_and_after_the_command(self):
        for arguments in (["--state-dir", ".", "metrics", "--json"], ["metrics", "--json", "--state-dir=."],
                          ["metrics", "--state-dir", self.folder, "--json"]):
            done = run(*arguments, cwd=self.folder)
            self.assertEqual((done.returncode, done.stderr), (0, ""), arguments)
            self.assertEqual(json.loads(done.stdout),
                             {"schema": 1, "takenAt": "2001-01-01T00:00:00Z",
                              "metrics": [{"key": "com.zorvik.snapshot.thermalLevel", "value": 3}]})
        missing = run("metrics", "--state-dir", os.path.join(self.folder, "missing"))
        self.assertEqual((missing.returncode, missing.stdout), (3, ""))

    def test_output_that_cannot_be_written(self):
        for arguments in (["--help"], ["--version"], ["status", "--json", "--state-dir", self.folder]):
            with open("/dev/full", "w", encoding="ascii") as full:
                done = run(*arguments, stdout=full)
            self.assertEqual(done.returncode, 1, arguments)
            self.assertEqual(done.stderr, "volornctl: standard output: No space left on device\n")
            done = run(*arguments, stdout=None, preexec_fn=lambda: os.close(1))
            self.assertEqual(done.returncode, 1, arguments)

    def test_a_closed_pipe_ends_it_quietly(self):
        reading, writing = os.pipe()
        os.close(reading)
        for command in ("status", "metrics", "history", "summary", "memory", "top"):
            done = run(command, "--state-dir", self.folder, stdout=writing)
            self.assertEqual((done.returncode, done.stderr), (0, ""), command)
        os.close(writing)

    def test_a_process_forges_nothing(self):
        """By its name: another row, an end of its text, a bold one, or bytes that are no text."""
        name = b'a\n"q\x1b[1m\\\xff\xe2\x82'
        path = os.path.join(os.fsencode(self.folder), name)
        shutil.copy("/bin/cat", path)
        with subprocess.Popen([path], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
            process.stdin.write(b".")
            process.stdin.flush()
            process.stdout.read(1)
            for command, field in (("memory", "name"), ("top", "command"), ("summary", "Command")):
                arguments = [command] + (["--count", "1"] if command == "top" else [])
                table = run(*arguments).stdout
                self.assertNotIn("\x1b", table)
                self.assertEqual(len(re.findall(r"(?m)^.*\ba\\u\{a\}\"q\\u\{1b\}\[1m\\\\\\xff\\xe2\\x82\b.*$",
                                                table)), 1, table)
                document = json.loads(run(*arguments, "--json").stdout)
                processes = document.get("processes") or document["Process Stats"].values()
                (row,) = [row for row in processes if row["pid"] == process.pid]
                self.assertEqual(row[field], 'a\n"q\x1b[1m\\\ufffd\ufffd')

    def test_colour_on_a_terminal_alone(self):
        for command in ("status", "metrics", "history"):
            arguments = [command, "--state-dir", self.folder]
            self.assertIn("\x1b[1m", on_terminal(*arguments))
            self.assertIn("\x1b[1m", on_terminal(*arguments, NO_COLOR=""))
            self.assertNotIn("\x1b", on_terminal(*arguments, NO_COLOR="1"))
            self.assertNotIn("\x1b", run(*arguments, env=PLAIN).stdout)

    def test_history_fits_the_terminal(self):
        arguments = ["history", "--state-dir", self.folder]
        self.assertEqual(on_terminal(*arguments, NO_COLOR="1"),
                         "Key           1 day  01-01\r\nthermalLevel  ▁        hot\r\n")
        self.assertEqual(on_terminal(*arguments, NO_COLOR="1", columns=20),
                         "Key           1 day\r\nthermalLevel  ▁\r\n")
        self.assertEqual(on_terminal(*arguments, "--key", "thermalLevel", NO_COLOR="1", columns=50),
                         "Taken at              Value  Reading  thermalLevel\r\n"
                         "2001-01-01T00:00:00Z      3  hot      ████████████\r\n")
        self.assertEqual(run(*arguments).stdout, "Taken at              Key           Value  Reading\n"
                                                 "2001-01-01T00:00:00Z  thermalLevel      3  hot\n")


if __name__ == "__main__":
    unittest.main()
