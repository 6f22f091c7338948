"""The screen of `top` in a terminal of its own: on a scripted machine against screens kept beside this, what each
key does, and what is left of the terminal.

VOLORN_WRITE_SCREENS=1 writes the expected screens anew, for a person to read."""

import contextlib
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import host

SCRIPTED = str(host.PROGRAMS / "top_on_scripted_machine")
RECORDER = str(host.PROGRAMS / "record_a_scripted_machine")
SCREENS = pathlib.Path(__file__).parent / "screens"
PATIENCE_SECONDS = 60
FIRST = r"(?s)^volornctl top .* every 1 s.*40 user1000 +100.0!"  # the second sample has come


class Terminal:
    """tmux, with a server of its own that no settings reach, showing what a shell has started."""

    def __init__(self, command, size=(80, 24), environment="LANG=C.UTF-8"):
        # What is started in it may end after the server, and write meanwhile.
        folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self.folder = pathlib.Path(folder.name)
        self.tmux = ["tmux", "-f", "/dev/null", "-S", str(self.folder / "socket")]
        self.end = folder.cleanup
        self.run("new-session", "-d", "-x", str(size[0]), "-y", str(size[1]), "env -i bash --norc -i")
        self.type(
            f"ulimit -c 0; export {environment} TERM=tmux-256color PS1=; clear; stty -g > {self.folder}/before; "
            f"sh -c {shlex.quote(f'echo $$ > {self.folder}/pid; exec {command}')}; "
            f"echo status $?; stty -g > {self.folder}/after; mv {self.folder}/after {self.folder}/done",
            "Enter",
        )

    def run(self, *arguments):
        environment = {**os.environ, "LANG": "C.UTF-8"}
        return subprocess.run(
            [*self.tmux, *arguments],
            check=True,
            text=True,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=environment,
        ).stdout

    def type(self, *keys):
        for key in keys:
            self.run("send-keys", *([] if key in NAMED_KEYS else ["-l"]), key)

    def screen(self):
        return self.run("capture-pane", "-p")

    def wait(self, pattern):
        """Until the screen looks so. Returns it."""
        until = time.monotonic() + PATIENCE_SECONDS
        while not re.search(pattern, screen := self.screen()):
            if time.monotonic() > until:
                raise AssertionError(f"{pattern} never came:\n{screen}")
            time.sleep(0.02)
        return screen

    def pid(self):
        return int((self.folder / "pid").read_text())

    def close(self):
        with contextlib.suppress(subprocess.CalledProcessError):
            self.run("kill-server")
        self.end()


NAMED_KEYS = {
    "Enter",
    "Escape",
    "Up",
    "Down",
    "Left",
    "Right",
    "PPage",
    "NPage",
    "Home",
    "End",
    "BSpace",
    "C-c",
    "C-z",
}


def rows(screen):
    """The first column of what is below the headings."""
    return re.findall(r"^ *(\d+) ", screen.partition("Command")[2], re.MULTILINE)


class ScreenTest(unittest.TestCase):
    maxDiff = None

    def start(self, command=f"{SCRIPTED} 2 0", **how):
        terminal = Terminal(command, **how)
        self.addCleanup(terminal.close)
        return terminal

    def test_screens(self):
        for size, environment, keys, name in (
            ((80, 24), "LANG=C.UTF-8", [], "80x24"),
            ((120, 40), "LANG=C.UTF-8", ["t"], "120x40"),
            ((40, 10), "LANG=C", [], "40x10"),
            ((200, 60), "LANG=C.UTF-8", ["H", "Down"], "200x60"),
            ((100, 40), "LANG=C.UTF-8", ["Enter"], "process"),
        ):
            terminal = self.start(size=size, environment=environment)
            terminal.wait(r" 40 user1000 +100\.0")
            terminal.type(*keys)
            file = SCREENS / f"{name}.txt"
            if "VOLORN_WRITE_SCREENS" in os.environ:
                time.sleep(1)
                file.write_text(terminal.screen())
            with self.subTest(name):
                expected = file.read_text()
                host.waitFor(
                    lambda terminal=terminal, expected=expected: terminal.screen() == expected,
                    PATIENCE_SECONDS,
                )
                self.assertEqual(terminal.screen(), expected)
            terminal.close()

    def test_keys(self):
        """While a sample is under way that never ends."""
        terminal = self.start(size=(120, 24))
        terminal.wait(FIRST)
        for keys, pattern in (
            (["N"], r"Command\n *1 (.*\n) *40 "),
            (["R"], r"Command\n4194303 "),
            (["M"], r"Command\n4194303 .*\n *44 "),
            (["T"], r"Command\n *40 "),
            (["<"], r"Command\n4194303 .*\n *44 "),  # by age
            (["P"], r"Command\n *40 .* busy *\n"),
            (["c"], r" 40 .* /usr/bin/busy --without end"),
            (["c", "t"], r" 1 .* init *\n *40 .* └ busy *\n(.*\n)* *41 .*   └ worker"),
            (["t", "H"], r"kworker/0:1"),
            (["H", "/", "BUS"], r"Command\n *40 [^\n]*\n\n(.*\n)*Name: BUS_"),
            (["BSpace", "BSpace", "BSpace", "h", "Escape"], r"Command\n *40 .*\n *1 "),
            (["u", "user1001", "Enter"], r"user: user1001 .*\n(.*\n)* *PID .*\n *43 .*\n4194303 "),
            (["u", "Enter", "+"], r"every 2 s"),
            (["-", "-"], r"every 0.5 s"),
            ([" "], r"PAUSED"),
            ([" ", "?"], r"order by processors, memory, time(.*\n)*any key"),
            (["x", "End", "Enter"], r"Process 4194303  漢字\n(.*\n)*State +"),
            (["Escape", "Home", "Enter"], r"Process 40  busy\n/usr/bin/busy --without end\n"),
            (["NPage"], r"anonymous +2 +8.0K(.*\n)* *45  blocked +1.50 s  its thread"),
            (["Escape", "Up", "Down", "PPage", "/", "z"], r"no process is so|Name: z_"),
            (["Escape"], r"Command\n *40 "),
        ):
            terminal.type(*keys)
            try:
                terminal.wait(pattern)
            except AssertionError as fault:
                self.fail(f"{keys}: {fault}")
        terminal.type("q")
        terminal.wait("status 0")

    def test_replay(self):
        if not pathlib.Path(RECORDER).exists():
            return
        terminal = self.start("sleep 0")
        record = terminal.folder / "record.db"
        subprocess.run([RECORDER, record, str(1 << 20), "720", "10"], check=True, stdout=subprocess.DEVNULL)
        replaying = self.start(f"{host.VOLORNCTL} top --replay {record} --at 05:00:00", size=(120, 40))
        for keys, pattern in (
            ([], r"04:59:56 UTC  658 of 720(.*\n)+All: busy +\S+"),
            (["Left", "Left"], r"04:59:46 UTC"),
            (["Right", "]"], r"05:00:51 UTC"),
            (["{"], r"04:05:11 UTC  1 of 720, the recorder began"),
            (["}", "["], r"05:04:06 UTC"),
            (["g", "04:59:00", "Enter"], r"04:58:56 UTC"),
            (["b"], r"Processors.? user (89|9\d|100)"),
            (["g", "04:06", "Enter"], r"04:05:56 UTC"),
            (["f", "process 2", "Enter"], r"04:06:\d\d UTC"),
            (["End", "Enter", "Left"], r"Process \d+"),
            (["Escape", "g", "05:05:06", "Enter", " "], r"720 of 720"),
            (["?"], r"an hour back or on"),
        ):
            replaying.type(*keys)
            replaying.wait(pattern)
        replaying.type("x", "q")
        replaying.wait("status 0")

    def test_it_follows_its_size(self):
        terminal = self.start(f"{SCRIPTED} 0 50", size=(40, 6))
        terminal.wait(r" 40 user1000 +100\.0!")
        terminal.type("u", "user1001", "Enter")  # none of them on the screen
        terminal.wait(r"^volornctl top  user: user1001 .*\n.*\n.*\n *43 user1001 ")
        terminal.type("u", "Enter")
        for columns, lines in ((40, 10), (20, 3), (1, 1), (200, 50), (80, 24)):
            terminal.run("resize-window", "-x", str(columns), "-y", str(lines))
        screen = terminal.wait(r"(?s)^volornctl top .* Threads Command *\n.*q: leave")
        self.assertEqual(len(rows(screen)), 14)

    def test_the_terminal_is_left_as_it_was(self):
        ends = {signal.SIGINT: 0, signal.SIGTERM: 0, signal.SIGHUP: 0}
        spared = {signal.SIGKILL, signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU}
        spared |= {signal.SIGCHLD, signal.SIGCONT, signal.SIGURG, signal.SIGWINCH}
        for end in ["q", "C-c", *sorted(signal.valid_signals() - spared)]:
            terminal = self.start()
            terminal.wait(FIRST)
            self.assertEqual(terminal.run("display", "-p", "#{alternate_on}#{cursor_flag}"), "10\n")
            if isinstance(end, str):
                terminal.type(end)
            else:
                os.kill(terminal.pid(), end)
            status = 0 if isinstance(end, str) else ends.get(end, 128 + end)
            terminal.wait(rf"status {status}\b")
            flags = terminal.run("display", "-p", "#{alternate_on}#{cursor_flag}#{keypad_flag}")
            self.assertEqual(flags, "010\n", end)
            while not (terminal.folder / "done").exists():
                time.sleep(0.01)
            self.assertEqual(
                (terminal.folder / "done").read_text(), (terminal.folder / "before").read_text(), end
            )
            terminal.close()

    def test_ctrl_z(self):
        terminal = self.start()
        terminal.wait(FIRST)
        terminal.type("C-z")
        terminal.wait(r"Stopped")
        self.assertEqual(terminal.run("display", "-p", "#{alternate_on}#{cursor_flag}"), "01\n")
        terminal.type("fg", "Enter")
        terminal.wait(FIRST)
        terminal.type("N")
        terminal.wait(r"ordered by pid")

    def test_a_terminal_with_one_screen(self):
        terminal = self.start(f"env TERM=vt100 {SCRIPTED} 2 0")
        terminal.wait(FIRST)
        os.kill(terminal.pid(), signal.SIGTERM)
        terminal.wait(r"(?m)^status 0\n")

    def test_where_there_is_no_screen(self):
        """A terminal that cannot move its cursor is sent blocks."""
        terminal = self.start(f"env TERM=dumb {host.VOLORNCTL} top -n 2 -d 0.1 --limit 1", size=(200, 60))
        screen = terminal.wait("status 0")
        self.assertEqual(len(re.findall(r"(?m)^Processors!? +user", screen)), 2)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
