#!/usr/bin/python3
"""What the screen of `top` costs beside its peers: processor time over the same seconds, in pairs of turns, on
terminals of one size, at an interval of one second.

    bench/screen.py FOLDER_OF_PROGRAMS [--seconds S] [--turns N] [--processes N]"""
import argparse
import fcntl
import os
import pty
import select
import signal
import statistics
import struct
import subprocess
import termios
import time

SIZE = (40, 120)


def cost(command, seconds):
    """Milliseconds of processor time in each second, from the third on."""
    pid, master = pty.fork()
    if pid == 0:
        os.environ.update(TERM="xterm-256color", LANG="C.UTF-8")
        os.execvp(command[0], command)
    fcntl.ioctl(master, termios.TIOCSWINSZ, struct.pack("HHHH", *SIZE, 0, 0))

    def read_for(duration):
        until = time.monotonic() + duration
        while (left := until - time.monotonic()) > 0:
            if select.select([master], [], [], left)[0]:
                os.read(master, 65536)

    def used():
        fields = open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    read_for(3)
    before = used()
    read_for(seconds)
    milliseconds = (used() - before) * 1000 / seconds
    os.kill(pid, signal.SIGKILL)
    os.waitpid(pid, 0)
    os.close(master)
    return milliseconds


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("programs")
    parser.add_argument("--seconds", type=int, default=20)
    parser.add_argument("--turns", type=int, default=3)
    parser.add_argument("--processes", type=int, default=0, help="so many more that sleep")
    arguments = parser.parse_args()
    crowd = [subprocess.Popen(["sleep", "infinity"]) for _ in range(arguments.processes)]
    commands = {
        "volornctl top": [f"{arguments.programs}/volornctl", "top"],
        "top": ["top", "-d", "1"],
        "htop": ["htop", "-d", "10"],
    }
    costs = {name: [] for name in commands}
    try:
        for _ in range(arguments.turns):
            for name, command in commands.items():
                costs[name].append(cost(command, arguments.seconds))
    finally:
        for process in crowd:
            process.kill()
            process.wait()
    for name, milliseconds in costs.items():
        print(
            f"{name:14} {statistics.median(milliseconds):7.1f} ms a second",
            [round(ms, 1) for ms in milliseconds],
        )


main()
