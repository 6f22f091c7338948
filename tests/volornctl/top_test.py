"""Follows the real machine with volornctl, and compares with what /proc and the work itself tell.

It runs in a network namespace of its own, in which nothing moves but what the test moves.
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

PROGRAM = host.VOLORNCTL
PYTHON = "/usr/bin/python3"
MIB = 1 << 20
MOVED = 16 * MIB
PATIENCE_SECONDS = 300
ATTEMPTS = 40  # what is looked for may have come between two looks


@contextlib.contextmanager
def started(code):
    """A process that has written a byte and goes on."""
    process = subprocess.Popen(
        [PYTHON, "-c", f"import os, signal; os.write(1, b'.'); {code}"], stdout=subprocess.PIPE
    )
    try:
        process.stdout.read(1)
        yield process.pid
    finally:
        process.kill()
        process.communicate()


@contextlib.contextmanager
def following(*arguments):
    """Lines of `volornctl top --json`, each as soon as its sample is taken."""
    process = subprocess.Popen([PROGRAM, "top", "--json", *arguments], stdout=subprocess.PIPE)
    try:
        yield map(json.loads, process.stdout)
    finally:
        process.kill()
        process.communicate()


def summary():
    return json.loads(
        subprocess.run([PROGRAM, "summary", "--json"], check=True, stdout=subprocess.PIPE).stdout
    )


def processIn(sample, pid):
    return next(process for process in sample["processes"] if process["pid"] == pid)


def movedIn(samples, group, name):
    """The bytes of each rate of the group, summed over samples until what was moved is in that of the name."""
    moved = {}
    for sample, _ in zip(samples, range(ATTEMPTS)):
        for key, rate in sample[group].items():
            moved[key] = moved.get(key, 0) + rate * sample["intervalSeconds"]
        if moved[name] >= MOVED:
            break
    return moved


def meminfo():
    lines = pathlib.Path("/proc/meminfo").read_text().splitlines()
    return {line.split(":")[0]: int(line.split()[1]) * 1024 for line in lines}


def threadsByPid():
    threads = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                threads[int(entry)] = len(os.listdir(f"/proc/{entry}/task"))
    return threads


def processorSeconds(pid):
    return time.clock_gettime(~pid << 3 | 2)  # CPUCLOCK_SCHED of the whole process


def writtenToDisks():
    written = 0
    for line in pathlib.Path("/proc/diskstats").read_text().splitlines():
        fields = line.split()
        if os.path.exists(f"/sys/block/{fields[2].replace('/', '!')}"):  # no part of a disk
            written += int(fields[9]) * 512
    return written


class FiguresTest(unittest.TestCase):
    def again(self, what, check):
        """Until the check is passed: what moves may move between two looks, and only what never agrees is wrong."""
        faults = []
        for _ in range(ATTEMPTS):
            try:
                return check()
            except AssertionError as fault:
                faults.append(str(fault))
        return self.fail(f"{what} never agreed: {faults[-3:]}")

    def test_a_busy_loop_and_a_sleeping_process(self):
        with started("exec('while True: pass')") as busy, started("signal.pause()") as sleeping, following(
            "--interval", "1"
        ) as samples:
            first, used = next(samples), processorSeconds(busy)
            for pid in (busy, sleeping):
                self.assertIsNone(processIn(first, pid)["cpuPercent"])
                self.assertIsNone(processIn(first, pid)["faultsPerSecond"])
            self.assertIsNone(first["intervalSeconds"])

            def check():
                nonlocal used
                # A machine with other work leaves the loop less than a processor; its own clock tells how much.
                second, used_before, used = next(samples), used, processorSeconds(busy)
                self.assertGreater(second["intervalSeconds"], 0.5)
                shown = processIn(second, busy)["cpuPercent"]
                self.assertAlmostEqual(
                    shown, (used - used_before) * 100 / second["intervalSeconds"], delta=20
                )
                self.assertLess(shown, 115)
                self.assertEqual(processIn(second, busy)["state"], "running")
                self.assertEqual(
                    second["processes"][0]["pid"],
                    max(second["processes"], key=lambda process: process["cpuPercent"] or 0)["pid"],
                )
                rest = processIn(second, sleeping)
                self.assertEqual(
                    (rest["cpuPercent"], rest["faultsPerSecond"], rest["contextSwitchesPerSecond"]), (0, 0, 0)
                )
                self.assertIn(rest["state"], ("sleeping", "idle"))
                self.assertAlmostEqual(sum(second["cpu"].values()), 100)
                self.assertGreater(second["cpu"]["userPercent"], 0)

            self.again("a busy loop and a sleeping process", check)

    def test_bytes_over_the_network(self):
        with following("--interval", "0.5") as samples:
            next(samples)
            with socket.create_server(("127.0.0.1", 0)) as server:
                sender = socket.create_connection(server.getsockname())
                receiver, _ = server.accept()
                sending = threading.Thread(target=lambda: (sender.sendall(bytes(MOVED)), sender.close()))
                sending.start()
                while receiver.recv(MIB):
                    pass
                sending.join()
                receiver.close()
            moved = movedIn(samples, "network", "inBytesPerSecond")
        for name in ("inBytesPerSecond", "outBytesPerSecond"):
            self.assertGreaterEqual(moved[name], MOVED)
            self.assertLess(moved[name], MOVED * 1.1)  # heads, and what is sent back

    def test_nothing_is_lost_where_the_sampler_starts_anew(self):
        def received():
            return int(pathlib.Path("/proc/net/dev").read_text().split("lo:")[1].split()[0])

        def sampledAndUsed():
            before, moved, busy_seconds = received(), 0, 0
            with started("exec('while True: pass')") as busy, following(
                "--interval", "0.01"
            ) as samples, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                next(samples)
                used = processorSeconds(busy)
                for sample, number in zip(samples, range(1000)):
                    moved += sample["network"]["inBytesPerSecond"] * sample["intervalSeconds"]
                    shown = processIn(sample, busy)["cpuPercent"]
                    self.assertIsNotNone(shown, number)
                    busy_seconds += shown / 100 * sample["intervalSeconds"]
                    if number < 65:  # past the sixtieth
                        sender.sendto(bytes(1000), ("127.0.0.1", 9))
                    elif round(moved) == received() - before:
                        break
                used = processorSeconds(busy) - used
            self.assertEqual(round(moved), received() - before)
            return busy_seconds, used

        for _ in range(ATTEMPTS):
            sampled, used = sampledAndUsed()
            if abs(sampled - used) <= used / 5:
                return
        self.fail(f"{sampled} s were sampled and {used} s used")

    def test_bytes_to_a_disk(self):
        with following("--interval", "0.5") as samples:
            next(samples)
            before = writtenToDisks()
            with tempfile.TemporaryFile(dir=host.PROGRAMS) as file:
                file.write(os.urandom(MOVED))
                file.flush()
                os.fsync(file.fileno())
            written = writtenToDisks() - before  # nothing where the folder lies in memory or elsewhere
            moved = movedIn(samples, "disk", "writeBytesPerSecond")
        self.assertGreaterEqual(moved["writeBytesPerSecond"], min(MOVED, written))

    def test_memory_agrees_with_proc(self):
        def check():
            before = meminfo()
            shown = summary()
            after = meminfo()
            self.assertEqual(
                shown["Physical Memory/Used"] + shown["Physical Memory/Free"], before["MemTotal"]
            )
            self.assertEqual(shown["Swap/Available"] + shown["Swap/Used"], before["SwapTotal"])
            for key, name in (("Free", "MemFree"), ("Active", "Active"), ("Inactive", "Inactive")):
                moved = abs(before[name] - after[name])  # by whoever else is at work
                self.assertAlmostEqual(
                    shown[f"Physical Memory/{key}"], before[name], delta=2 * moved + 64 * MIB
                )

        self.again("the memory", check)

    def test_processes_and_threads_agree_with_proc(self):
        agreed = set()
        for _ in range(ATTEMPTS):
            before = threadsByPid()
            with following("--count", "1") as samples:
                sample = next(samples)
            after = threadsByPid()
            shown = {process["pid"]: process["threads"] for process in sample["processes"]}
            self.assertEqual(sample["threads"], sum(shown.values()))
            stayed = before.keys() & after.keys()
            self.assertLessEqual(stayed, shown.keys())
            at_rest = {pid: before[pid] for pid in stayed if before[pid] == after[pid]}
            agreed.update(pid for pid, number in at_rest.items() if shown[pid] == number)
            if at_rest.keys() <= agreed:
                return
        self.fail(
            f"the numbers of threads never agreed: {[(pid, at_rest[pid]) for pid in at_rest.keys() - agreed]}"
        )

    def test_sizes_of_a_process_at_rest(self):
        with started("import json; signal.pause()") as pid:

            def check():
                with following("--count", "2", "--interval", "0.1") as samples:
                    shown = [processIn(sample, pid) for sample in samples]
                pages = pathlib.Path(f"/proc/{pid}/statm").read_text().split()
                rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
                private = sum(
                    int(kib) for kib in re.findall(r"^Private_\w+: +(\d+) kB", rollup, re.MULTILINE)
                )
                for process in shown:
                    self.assertEqual(process["residentBytes"], int(pages[1]) * os.sysconf("SC_PAGESIZE"))
                    self.assertEqual(process["virtualBytes"], int(pages[0]) * os.sysconf("SC_PAGESIZE"))
                    # Which page of a file is nobody else's depends on what other processes just map.
                    self.assertAlmostEqual(
                        process["privateBytes"], private * 1024, delta=private * 1024 // 10
                    )

            self.again("the sizes", check)

    def test_what_ends_it(self):
        """A reader that goes, at once, and Ctrl-C alike with JSON and without."""
        for arguments, end in (
            (["--json"], lambda process: process.stdout.close()),
            (["--json"], lambda process: process.send_signal(signal.SIGINT)),
            ([], lambda process: process.send_signal(signal.SIGINT)),
        ):
            with subprocess.Popen(
                [PROGRAM, "top", "-d", "100000", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE
            ) as process:
                process.stdout.readline()
                end(process)
                self.assertEqual(process.stderr.read(), b"")
                self.assertEqual(process.wait(PATIENCE_SECONDS), 0)

    def test_processes_are_those_of_ps(self):
        """By their ids, names, owners and parents; chosen and ordered."""
        with started("signal.pause()") as pid, following("-n", "1", "-p", f"1,{pid}", "-o", "pid") as samples:
            shown = [
                f"{row['pid']} {row['ppid']} {row['uid']} {row['threads']} {row['command']}"
                for row in next(samples)["processes"]
            ]
            told = subprocess.run(
                ["ps", "-o", "pid=,ppid=,euid=,nlwp=,comm=", "-p", f"1,{pid}"],
                text=True,
                stdout=subprocess.PIPE,
            )
            self.assertEqual(shown, [" ".join(line.split()) for line in told.stdout.splitlines()])

    def test_usage(self):
        for arguments in (
            ["--interval", "0"],
            ["--interval", "nan"],
            ["--interval", "1s"],
            ["--interval", "-1"],
            ["--count", "0"],
            ["--count", "99999999999999999999"],
            ["--sort", "cup"],
            ["--pid", "1,0"],
            ["--user", "nobody at all"],
            ["--limit", "0"],
        ):
            done = subprocess.run(
                [PROGRAM, "top", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE
            )
            self.assertEqual((done.returncode, done.stdout), (2, b""), arguments)


def main():
    if "VOLORN_TEST_NAMESPACE" not in os.environ:
        os.environ["VOLORN_TEST_NAMESPACE"] = "entered"
        users = [] if os.geteuid() == 0 else ["--map-root-user"]
        os.execvp("unshare", ["unshare", "--net", *users, sys.executable, *sys.argv])
    host.raiseLoopback()
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])


if __name__ == "__main__":
    main()
